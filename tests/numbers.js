// Usage: node numbers.js HELPER PROGRAM
// Whether examples/host.js keeps all 64 bits of numbers, in texts and through a helper.
const assert = require('node:assert/strict');
const { Helper, parse, stringify } = require('../examples/host.js');

for (const [text, value] of [
  ['[9007199254740991, 9007199254740992, -9223372036854775808, 18446744073709551615]',
    [9007199254740991, 2n ** 53n, -(2n ** 63n), 2n ** 64n - 1n]],
  // Digits that are no integer, or in a text, stay what they are.
  ['[1.2345678901234567890, 1234567890123456789e5]', [1.2345678901234567, 1234567890123456789e5]],
  ['{"12345678901234567890": "é\\": 12345678901234567890 \\\\\\"", "n\\n": 12345678901234567891}',
    { '12345678901234567890': 'é": 12345678901234567890 \\"', 'n\n': 12345678901234567891n }],
]) {
  assert.deepEqual(parse(text), value, text);
  assert.deepEqual(parse(stringify(value)), value, text);
}
assert.equal(stringify({ a: undefined, b: [undefined, 2n ** 64n] }), '{"b":[null,18446744073709551616]}');
// Neither long texts nor long lists take more than their share of time and stack.
const long = '1234567890e'.repeat(2e5);
assert.deepEqual(parse(`["${long}", 18446744073709551615]`), [long, 2n ** 64n - 1n]);
assert.equal(parse(`[${'255, '.repeat(1e6)}18446744073709551615]`).length, 1e6 + 1);

(async () => {
  const helper = new Helper(process.argv[2]);
  const answers = await Promise.all([  // several requests at once: each gets its own answer
    helper.ask('prepareExecutable', { path: process.argv[3] }),
    helper.ask('createProcess'),
    helper.ask('setBreakpointAtVirtualAddress', { address: 0xfedcba9876543210n }),
    helper.ask('deleteProcess'),
  ]);
  assert.equal(answers[2].bl0, 'load addr: fedcba9876543210');
  assert.equal(await helper.close(), 0);
  await assert.rejects(helper.ask('ping'), /ended|closed|EPIPE|after end/);
})();
