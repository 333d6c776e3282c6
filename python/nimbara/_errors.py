"""The exceptions nimbara raises."""


class Error(Exception):
    """Base class of nimbara's own errors."""


class NoDevice(Error):
    """No device on the audio route: nothing named like headphones is plugged in.

    ``route`` is the route's name (empty when it could not be read). Pass
    ``skip_precheck=True`` to the :class:`Accessory` to send anyway.
    """

    def __init__(self, route: str = ""):
        self.route = route
        super().__init__(
            f'No device. The audio route "{route}" has no headphones plugged in '
            "(pass skip_precheck=True to send anyway)")

    def __reduce__(self):
        return type(self), (self.route,)


class AudioError(Error):
    """The audio output failed: the command did not go out whole.

    ``status`` is the output's status number (negative), ``text`` says what
    it means and ``device`` names the output.
    """

    def __init__(self, status: int, text: str, device: str = ""):
        self.status = status
        self.text = text
        self.device = device
        where = f"{device}: " if device else ""
        super().__init__(f"{where}{text} (status {status}); the command did not go out whole")

    def __reduce__(self):
        return type(self), (self.status, self.text, self.device)
