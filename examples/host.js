// A host for lldb-helper in Node.js (18 or newer, no packages). Copy it, or read it before you write
// your own. host.py explains the rules for hosts. This host uses promises.
//
// The helper writes addresses and ids as integers of up to 64 bits. JSON.parse loses their low digits.
// Here an integer that is not safe as a number is a BigInt, in requests and messages. BigInt(value)
// accepts both. Node 21 and newer pass a number's source to a reviver, and could do without rewriting
// the text below.

'use strict';

const { spawn } = require('node:child_process');

// Wraps the integers outside of strings that a number cannot hold: 2^53 and above.
function parse(text) {
  let inString = false;
  let wrapped = false;
  const safe = text.replace(/\\.|"|-?\d[\d.eE+-]*/gs, (token) => {
    if (token === '"') inString = !inString;
    else if (!inString && /^-?\d{16,}$/.test(token) && !Number.isSafeInteger(Number(token))) {
      wrapped = true;
      return `{"$integer":"${token}"}`;
    }
    return token;
  });
  // A reviver is slow for a long response, such as a megabyte of memory.
  return wrapped ? JSON.parse(safe, (_, value) => unwrap(value)) : JSON.parse(text);
}

function unwrap(value) {
  return typeof value?.$integer === 'string' ? BigInt(value.$integer) : value;
}

// JSON.stringify throws on a BigInt.
function stringify(value) {
  if (typeof value === 'bigint') return value.toString();
  if (Array.isArray(value)) return `[${value.map(stringify).join()}]`;
  if (typeof value !== 'object' || value === null) return JSON.stringify(value) ?? 'null';
  const members = Object.entries(value).filter(([, member]) => member !== undefined);
  return `{${members.map(([key, member]) => `${JSON.stringify(key)}:${stringify(member)}`).join()}}`;
}

// File names may have bytes that are not UTF-8. decode turns each such byte into a lone surrogate, U+DC80
// to U+DCFF, and encode turns it back.
const utf8 = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true });

function decode(bytes) {
  try {
    return utf8.decode(bytes);
  } catch {
    let text = '';
    for (let at = 0; at < bytes.length; ) {
      const lead = bytes[at];
      const length = lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
      try {
        text += utf8.decode(bytes.subarray(at, at + length));
        at += length;
      } catch {
        text += String.fromCharCode(0xdc00 + lead);
        at += 1;
      }
    }
    return text;
  }
}

// Takes JSON text, in which stringify has written a lone surrogate as \udcxx.
function encode(text) {
  const pieces = [];
  let start = 0;
  for (const match of text.matchAll(/\\(?:udc([89a-f][0-9a-f])|.)/gs)) {
    if (match[1] === undefined) continue;
    pieces.push(Buffer.from(text.slice(start, match.index)), Buffer.from(match[1], 'hex'));
    start = match.index + match[0].length;
  }
  return Buffer.concat([...pieces, Buffer.from(text.slice(start))]);
}

class Helper {
  #nextId = 1;
  #pending = new Map(); // id -> { resolve, reject }, for each request without a response yet
  #events = [];
  #wake = () => {}; // wakes events()
  #failure = null; // why no more requests are possible
  #length = null; // of the frame whose text has not arrived yet

  constructor(program) {
    // The last two become the child's descriptors 3 and 4. Node passes no others.
    this.child = spawn(program, ['3', '4'], {
      stdio: ['inherit', 'inherit', 'inherit', 'pipe', 'pipe'],
    });
    this.requests = this.child.stdio[3];
    this.messages = this.child.stdio[4];
    this.ended = new Promise((resolve) => {
      this.child.on('error', (error) => {
        this.#fail(error); // the program does not exist
        resolve(error);
      });
      this.child.on('close', (code, signal) => resolve(code ?? signal));
    });
    // Reads all the time, because the helper waits for a host that does not read.
    this.messages.on('readable', () => this.#read());
    this.messages.on('end', () => this.#fail(new Error('the helper has ended')));
    for (const stream of [this.requests, this.messages]) {
      stream.on('error', (error) => this.#fail(error));
    }
  }

  #read() {
    for (;;) {
      if (this.#length === null) {
        const prefix = this.messages.read(4);
        if (prefix?.length !== 4) return;
        // The length is in the machine's byte order, and so is a Uint32Array.
        this.#length = new Uint32Array(Uint8Array.from(prefix).buffer)[0];
      }
      const text = this.messages.read(this.#length); // null until all bytes have arrived
      if (text?.length !== this.#length) return;
      this.#length = null;
      this.#sort(parse(decode(text)));
    }
  }

  #sort(message) {
    if (message.status === 'event') {
      this.#events.push(message);
      this.#wake();
      return;
    }
    // Responses keep their order, so one without an id (to an unreadable request) is for the oldest.
    const id = message.id ?? this.#pending.keys().next().value;
    this.#pending.get(id)?.resolve(message);
    this.#pending.delete(id);
  }

  #fail(error) {
    this.#failure ??= error;
    for (const { reject } of this.#pending.values()) reject(this.#failure);
    this.#pending.clear();
    this.#wake();
  }

  // Sends a request. Resolves with its response, also if its status is "error". Rejects if the helper
  // has ended.
  ask(command, args = {}) {
    if (this.#failure) return Promise.reject(this.#failure);
    const id = this.#nextId++;
    const text = encode(stringify({ ...args, command, id }));
    return new Promise((resolve, reject) => {
      this.#pending.set(id, { resolve, reject });
      this.requests.write(Buffer.from(new Uint32Array([text.length]).buffer));
      this.requests.write(text);
    });
  }

  // for await (const event of helper.events()) gets each event once, in order. A later loop continues
  // where the one before ended. Use only one loop at a time.
  async *events() {
    for (;;) {
      while (this.#events.length > 0) yield this.#events.shift();
      if (this.#failure) return;
      await new Promise((resolve) => (this.#wake = resolve));
    }
  }

  // Deletes the process and ends the helper, which stops only at the end of its input. Resolves with the
  // helper's exit status, or with the name of the signal that ended it.
  async close() {
    await this.ask('deleteProcess').catch(() => {}); // answers with an error if there is no process
    this.requests.end();
    return this.ended;
  }
}

module.exports = { Helper, parse, stringify, decode, encode };
