// The npm package as a user gets it: npm pack, installed offline into a
// scratch project, imported by name from JavaScript and type-checked from
// TypeScript.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { packageDir, scratch, toolRender, webDir } from './support/native.js';

const npm = (args, cwd) => execFileSync('npm', [...args, '--no-audit', '--no-fund', '--loglevel=error'], { cwd, encoding: 'utf8' });

test('npm pack gives a tarball that a project installs offline and uses', () => {
  const packed = JSON.parse(npm(['pack', '--json', '--pack-destination', scratch], packageDir));
  const { filename, files } = packed[0];
  assert.deepEqual(files.map((f) => f.path).sort(),
    ['README.md', 'core.d.ts', 'core.js', 'nimbara-glue.js', 'nimbara-glue.wasm', 'nimbara.d.ts', 'nimbara.js', 'package.json']);

  const app = join(scratch, 'app');
  mkdirSync(app);
  writeFileSync(join(app, 'package.json'), JSON.stringify({ name: 'app', version: '0.0.0', private: true, type: 'module' }));
  npm(['install', '--offline', join(scratch, filename)], app);

  writeFileSync(join(app, 'main.js'), `
    import { render, decode, Receiver } from 'nimbara';
    const samples = render('flash', [10, 20, 30, 40, 700]);
    const receiver = new Receiver(44100, 2);
    receiver.push(samples);
    receiver.finish();
    process.stdout.write(JSON.stringify({ samples: Array.from(samples), heard: decode(samples, 44100, 2), streamed: receiver.take() }));
  `);
  const out = JSON.parse(execFileSync('node', ['main.js'], { cwd: app, encoding: 'utf8', maxBuffer: 1 << 26 }));
  assert.deepEqual(out.samples, Array.from(toolRender('doLightLed', [10, 20, 30, 40, 700])));
  for (const heard of [out.heard, out.streamed]) {
    assert.equal(heard.length, 1);
    assert.deepEqual([heard[0].command, heard[0].red, heard[0].green, heard[0].blue, heard[0].special, heard[0].time], ['flash', 10, 20, 30, 40, 700]);
  }

  // The declarations: right uses compile under strict settings, a wrong one does not.
  writeFileSync(join(app, 'check.ts'), `
    import { render, decode, describe, Receiver, type Transmission } from 'nimbara';
    import { createNimbara } from 'nimbara/core.js';
    const samples: Int16Array = render('puff', [1, 2, 3]);
    const heard: Transmission[] = decode(samples, 44100, 2);
    const clamp: number | undefined = describe('puff', [1, 2, 3, 0, 5000]).sprays;
    const receiver = new Receiver(48000);
    receiver.push(new Float32Array(128));
    const verbs: string[] = receiver.take().map((t) => t.command);
    receiver.close();
    const api: Promise<{ render: typeof render }> = createNimbara(new Uint8Array(0));
    // @ts-expect-error: samples are typed arrays
    decode([0, 0], 44100, 2);
    export { heard, clamp, verbs, api };
  `);
  const tsc = join(webDir, 'node_modules/typescript/bin/tsc');
  const flags = ['--noEmit', '--strict', '--target', 'es2022', '--module', 'nodenext', '--moduleResolution', 'nodenext'];
  execFileSync('node', [tsc, ...flags, 'check.ts'], { cwd: app, encoding: 'utf8' });
  writeFileSync(join(app, 'wrong.ts'), `import { render } from 'nimbara';\nconst s: Float32Array = render('puff', [1, 2, 3]);\nexport { s };\n`);
  assert.throws(() => execFileSync('node', [tsc, ...flags, 'wrong.ts'], { cwd: app, encoding: 'utf8' }), (e) => /TS2322/.test(e.stdout));
  assert.match(readFileSync(join(app, 'node_modules/nimbara/package.json'), 'utf8'), /"name": "nimbara"/);
});
