// Debugs a small program from its launch to its exit, and shows the messages on the two pipes.
//
// Usage: node session.js HELPER PROGRAM

'use strict';

const path = require('node:path');
const { Helper, stringify } = require('./host.js');

const HELP = 'docs/troubleshooting.md explains this message under "Launching".';

async function ask(helper, command, args = {}) {
  console.log('->', command, stringify(args));
  const response = await helper.ask(command, args);
  if (response.status !== 'ok') throw new Error(`${command}: ${response.message}\n${HELP}`);
  return response;
}

// Reads events up to the one with this state. Returns that event and the output before it.
async function readUntil(helper, state) {
  const output = [];
  for await (const event of helper.events()) {
    if (event.type === 'stdout' || event.type === 'stderr') {
      output.push(Buffer.from(event.output, 'hex')); // two events may have the parts of one character
    } else {
      console.log(' *', stringify(event));
    }
    // The program runs on its own terminal, which ends lines with "\r\n".
    if (event.state_desc === state) return [event, Buffer.concat(output).toString()];
    if (event.state_desc === 'eStateExited') break;
  }
  throw new Error(`the program did not reach ${state}`);
}

const hex = (number) => `0x${number.toString(16)}`; // for a number or a BigInt

async function debug(helper, program) {
  await ask(helper, 'prepareExecutable', {
    path: path.resolve(program), args: 'world', env: 'GREETING="Good morning"',
    cwd: process.cwd(), triple: '', is64Bits: true,
  });
  await ask(helper, 'createProcess');
  await readUntil(helper, 'eStateStopped');

  const { pc } = (await ask(helper, 'getCallstack')).callstack[0];
  const { registers } = await ask(helper, 'getRegisters');
  console.log('   pc', hex(pc));
  if (BigInt(pc) !== BigInt(registers.rip ?? registers.pc)) throw new Error('pc is not exact');
  // A section that is not in memory has the address 2^64 - 1, which only a BigInt can hold.
  const { module } = await ask(helper, 'moduleAtIndex', { index: 0 });
  const absent = module.sections.find((section) => section.loadAddr === 0xffffffffffffffffn);
  if (absent) console.log('   not in memory:', absent.name, hex(absent.loadAddr));

  await ask(helper, 'continueExecution');
  const [exited, output] = await readUntil(helper, 'eStateExited');
  console.log(`${output}exit status ${exited.exit_status}`);
  await ask(helper, 'deleteProcess');
  return output.includes('Good morning, world!') && exited.exit_status === 3;
}

async function main() {
  const [helperProgram, program] = process.argv.slice(2);
  if (process.argv.length !== 4) throw new Error('usage: node session.js HELPER PROGRAM');
  const helper = new Helper(helperProgram);
  let asExpected;
  let status;
  try {
    asExpected = await debug(helper, program);
  } finally {
    status = await helper.close();
  }
  console.log('the helper ended with', status);
  return asExpected && status === 0;
}

main().then(
  (asExpected) => process.exit(asExpected ? 0 : 1),
  (error) => {
    console.error(error.message);
    process.exit(1);
  },
);
