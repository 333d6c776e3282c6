// The WebAssembly render against the native one, sample for sample.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { firstDifference, libraryRender, toolRender } from './support/native.js';
import { nimbara } from './support/package.js';

const { render, describe } = nimbara;

function assertSame(actual, expected, what) {
  assert.ok(actual instanceof Int16Array, `${what}: not an Int16Array`);
  const at = firstDifference(actual, expected);
  assert.equal(at, -1, `${what}: differs at sample ${at} of ${expected.length} (${actual[at]} instead of ${expected[at]})`);
}

// Every operation the tool renders, with its arguments' edge cases: the
// extremes of every byte, the time's sign, zero and extremes and the puff's
// clamp on both sides, the echo's whole 32-bit range.
const operations = [
  ['doLightLed', [255, 0, 128, 1, 500]],
  ['doLightLed', [0, 0, 0, 0, 0]],
  ['doLightLed', [255, 255, 255, 255, 32767]],
  ['doLightLed', [1, 2, 3, 4, -32768]],
  ['doLightLed', [170, 85, 15, 240, -1]],
  ['doSprayWithLightLed', [10, 20, 30, 0, 500]],
  ['doSprayWithLightLed', [10, 20, 30, 0, 99]],
  ['doSprayWithLightLed', [10, 20, 30, 0, 1001]],
  ['doSprayWithLightLedGetTankId', [255, 0, 128, 7, 5000]],
  ['doSprayWithLightLedGetTankId', [0, 255, 0, 255, 100]],
  ['doSprayWithLightLedGetTankId', [0, 0, 255, 0, 1000]],
  ['doSprayWithLightLedGetTankId', [9, 9, 9, 9, -32768]],
  ['doAquireDeviceState', []],
  ['doGetTankId', []],
  ['doEcho', [0]],
  ['doEcho', [1]],
  ['doEcho', [0xa5a5a5a5]],
  ['doEcho', [4294967295]],
];

test('every operation renders bit for bit as the native nimbara render', () => {
  for (const [operation, args] of operations) {
    assertSame(render(operation, args), toolRender(operation, args), `${operation} ${args.join(' ')}`);
  }
});

test('the verbs render as the operations that send them', () => {
  const cases = [
    ['flash', [255, 0, 128], 'doLightLed', [255, 0, 128, 0, 500]],
    ['flash', [1, 2, 3, 4, -7], 'doLightLed', [1, 2, 3, 4, -7]],
    ['puff', [12, 34, 56, 78, 5000], 'doSprayWithLightLedGetTankId', [12, 34, 56, 78, 5000]],
    ['puff', [12, 34, 56], 'doSprayWithLightLedGetTankId', [12, 34, 56, 0, 500]],
    ['state', [], 'doAquireDeviceState', []],
    ['tank', [], 'doGetTankId', []],
    ['echo', [305419896], 'doEcho', [305419896]],
  ];
  for (const [verb, args, operation, native] of cases) {
    assertSame(render(verb, args), toolRender(operation, native), `${verb} ${args.join(' ')}`);
  }
});

test('spray, which no device operation sends, renders as the library renders it', () => {
  for (const time of [500, 0, 1, 99, 5000, 32767, -32768]) {
    const samples = render('spray', [time]);
    assertSame(samples, libraryRender('spray', [time]), `spray ${time}`);
    assert.equal(samples.length, 17640 * 2);
  }
  // Different times give different signals: the comparison can tell them apart.
  assert.notEqual(firstDifference(render('spray', [500]), render('spray', [501])), -1);
});

test('lengths: 400 ms for commands, 200 ms for the queries, the same sample in both channels', () => {
  assert.equal(render('flash', [1, 2, 3]).length, 2 * 17640);
  assert.equal(render('state').length, 2 * 8820);
  const s = render('tank');
  for (let i = 0; i < s.length; i += 2) assert.equal(s[i], s[i + 1]);
});

test('wrong operations and arguments are refused with the library message', () => {
  assert.throws(() => render('flash', [256, 0, 0]), { name: 'RangeError', message: /red must be from 0 to 255, not 256/ });
  assert.throws(() => render('flash', [0, -1, 0]), { name: 'RangeError', message: /green must be from 0 to 255/ });
  assert.throws(() => render('doLightLed', [1, 2, 3]), { name: 'RangeError', message: /takes 5 arguments, not 3/ });
  assert.throws(() => render('puff', [1, 2, 3, 4, 32768]), { name: 'RangeError', message: /time must be from -32768 to 32767/ });
  assert.throws(() => render('echo', [4294967296]), { name: 'RangeError', message: /number must be from 0 to 4294967295/ });
  assert.throws(() => render('echo', [1.5]), { name: 'RangeError', message: /whole number/ });
  assert.throws(() => render('echo', [NaN]), { name: 'RangeError', message: /whole number/ });
  assert.throws(() => render('launch', []), { name: 'RangeError', message: /unknown command "launch"/ });
  assert.throws(() => render('echo', [7.5, '7']), { name: 'TypeError' });
  assert.throws(() => render('echo', ['x']), { name: 'RangeError', message: /number must be a decimal number, not "x"/ });
  assert.throws(() => render({ command: 'state', red: 1 }), { name: 'RangeError', message: /state carries no red/ });
  assert.throws(() => render(7, []), { name: 'TypeError' });
});

test('describe tells what the accessory does, the puff clamp included', () => {
  assert.deepEqual(
    { ...describe('puff', [255, 0, 128, 3, 5000]) },
    { command: 'puff', red: 255, green: 0, blue: 128, special: 3, time: 5000, asks_tank: true, sprays: 1000, operation: 'doSprayWithLightLedGetTankId', frames: 17640 },
  );
  assert.equal(describe('puff', [0, 0, 0, 0, 20]).sprays, 100);
  assert.equal(describe('doSprayWithLightLed', [0, 0, 0, 0, 20]).asks_tank, false);
  assert.equal(describe('spray', [5000]).sprays, 5000);
  assert.equal('sprays' in describe('flash', [1, 2, 3]), false);
  assert.equal(describe('flash', [1, 2, 3]).time, 500);
  assert.deepEqual(describe('state'), { command: 'state', operation: 'doAquireDeviceState', frames: 8820 });
  assert.equal(describe('echo', [42]).number, 42);
  assert.deepEqual(describe(['puff', 'orange', '--no-tank']), describe('doSprayWithLightLed', [255, 165, 0, 0, 500]));
});

test('the route rule: HeadsetInOut or Headphone anywhere, case-sensitive', () => {
  const { isHeadsetRoute } = nimbara;
  for (const name of ['HeadsetInOut', 'Headphone', 'Headphones (USB Audio)', 'Default - Headphone jack']) {
    assert.equal(isHeadsetRoute(name), true, name);
  }
  for (const name of ['Speaker', 'headphones', 'HEADPHONE', 'Headset', '']) {
    assert.equal(isHeadsetRoute(name), false, name);
  }
});
