// Whether examples/host.js keeps all 64 bits of numbers, in texts and through a helper.
//
// Usage: node numbers.js HELPER PROGRAM

'use strict';

const assert = require('node:assert/strict');
const path = require('node:path');
const { Helper, parse, stringify } = require('../examples/host.js');

for (const [text, value] of [
  ['18446744073709551615', 18446744073709551615n],
  ['{"a": 9007199254740991, "b": 9007199254740992, "c": 9007199254740993}',
    { a: 9007199254740991, b: 9007199254740992n, c: 9007199254740993n }],
  ['[-9223372036854775808,-1,0,12345678901234567890]', [-(2n ** 63n), -1, 0, 12345678901234567890n]],
  // Digits that are no integer, or in a text, stay what they are.
  ['[1.2345678901234567890, 1234567890123456789e5, 0.5e-7]',
    [1.2345678901234567, 1234567890123456789e5, 5e-8]],
  ['{"12345678901234567890": "12345678901234567890"}',
    { '12345678901234567890': '12345678901234567890' }],
  ['["\\"", 12345678901234567890, "\\\\", "a\\": 12345678901234567890 \\\\\\"", 12345678901234567891]',
    ['"', 12345678901234567890n, '\\', 'a": 12345678901234567890 \\"', 12345678901234567891n]],
  ['{"memory": [], "é\\n": null, "t": true}', { memory: [], 'é\n': null, t: true }],
]) {
  assert.deepEqual(parse(text), value, text);
  assert.deepEqual(parse(stringify(value)), value, text);
}
assert.equal(stringify({ a: undefined, b: [undefined, 2n ** 64n] }), '{"b":[null,18446744073709551616]}');
// Neither long texts nor long lists take more than their share of time and stack.
const long = '1234567890e'.repeat(2e5);
assert.deepEqual(parse(`["${long}", 18446744073709551615]`), [long, 2n ** 64n - 1n]);
assert.equal(parse(`[${'255, '.repeat(1e6)}18446744073709551615]`).length, 1e6 + 1);

async function main() {
  const helper = new Helper(process.argv[2]);
  try {
    // Several requests at once: each gets its own answer.
    const answers = await Promise.all([
      helper.ask('prepareExecutable', { path: path.resolve(process.argv[3]) }),
      helper.ask('createProcess'),
      helper.ask('setBreakpointAtVirtualAddress', { address: 0x123456789abcdef1n }),
      helper.ask('setBreakpointAtVirtualAddress', { address: 0xfedcba9876543210n }),
      helper.ask('moduleAtIndex', { index: 0 }),
      helper.ask('nonsense'),
    ]);
    assert.equal(answers[2].bl0, 'load addr: 123456789abcdef1');
    assert.equal(answers[3].bl0, 'load addr: fedcba9876543210');
    assert.ok(answers[4].module.sections.some((section) => section.loadAddr === 0xffffffffffffffffn));
    assert.equal(answers[5].message, "unknown command 'nonsense'");
  } finally {
    assert.equal(await helper.close(), 0);
  }
  await assert.rejects(helper.ask('ping'), /ended|closed|EPIPE|after end/);
}

main().then(() => console.log('numbers are exact'));
