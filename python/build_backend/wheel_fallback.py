"""bdist_wheel for a setuptools that has none of its own on a Python without
the wheel package: the offline build (--no-build-isolation) of a Python that
has neither, which would otherwise stop at "invalid command 'bdist_wheel'".
It writes this project's one kind of wheel: a CPython platform wheel."""
import base64
import hashlib
import shutil
import sys
import sysconfig
import tempfile
import zipfile
from pathlib import Path

from setuptools import Command


def bdist_wheel_command():
    """This module's command when nothing else provides bdist_wheel, else None."""
    for module in ("setuptools.command.bdist_wheel", "wheel.bdist_wheel"):
        try:
            __import__(module)
            return None
        except ImportError:
            pass
    return WheelWithoutWheelPackage


def _tag():
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"{python}-{python}{sys.abiflags}-{platform}"


def _requirements(requires_txt):
    """The unconditional requirements of an egg-info requires.txt."""
    for line in requires_txt.read_text().splitlines():
        if line.startswith("["):
            break
        if line.strip():
            yield line.strip()


def _record_line(path, arcname):
    data = path.read_bytes()
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{arcname},sha256={digest},{len(data)}\n"


class WheelWithoutWheelPackage(Command):
    description = "build a wheel without the wheel package"
    user_options = [("dist-dir=", "d", "where to write the wheel")]

    def initialize_options(self):
        self.dist_dir = None

    def finalize_options(self):
        self.dist_dir = self.dist_dir or "dist"

    def egg2dist(self, egg_info_dir, dist_info_dir):
        """The metadata of an .egg-info folder as a .dist-info folder (what
        setuptools' dist_info command asks of bdist_wheel)."""
        egg, dist = Path(egg_info_dir), Path(dist_info_dir)
        dist.mkdir(parents=True, exist_ok=True)
        metadata = (egg / "PKG-INFO").read_text()
        if "\nRequires-Dist:" not in metadata and (egg / "requires.txt").exists():
            head, blank, description = metadata.partition("\n\n")
            lines = "".join(f"\nRequires-Dist: {r}" for r in _requirements(egg / "requires.txt"))
            metadata = head + lines + blank + description
        (dist / "METADATA").write_text(metadata)
        for name in ("top_level.txt", "entry_points.txt"):
            if (egg / name).exists():
                shutil.copyfile(egg / name, dist / name)
        for licence in self.distribution.metadata.license_files or []:
            shutil.copyfile(licence, dist / Path(licence).name)

    def run(self):
        self.run_command("build")
        root = Path(self.get_finalized_command("build").build_platlib)
        self.run_command("egg_info")
        egg_info = self.get_finalized_command("egg_info").egg_info
        name = f"{self.distribution.get_name()}-{self.distribution.get_version()}"
        Path(self.dist_dir).mkdir(parents=True, exist_ok=True)
        wheel = Path(self.dist_dir) / f"{name}-{_tag()}.whl"
        with tempfile.TemporaryDirectory() as scratch:
            dist_info = Path(scratch) / f"{name}.dist-info"
            self.egg2dist(egg_info, dist_info)
            (dist_info / "WHEEL").write_text(
                "Wheel-Version: 1.0\nGenerator: nimbara setup.py\n"
                f"Root-Is-Purelib: false\nTag: {_tag()}\n")
            files = [(p, p.relative_to(root).as_posix()) for p in sorted(root.rglob("*"))
                     if p.is_file()]
            files += [(p, f"{dist_info.name}/{p.name}") for p in sorted(dist_info.iterdir())]
            record = f"{dist_info.name}/RECORD"
            with zipfile.ZipFile(wheel, "w", zipfile.ZIP_DEFLATED) as archive:
                for path, arcname in files:
                    archive.write(path, arcname)
                archive.writestr(record, "".join(_record_line(p, a) for p, a in files)
                                 + f"{record},,\n")
