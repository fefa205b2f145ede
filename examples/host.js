// A host for lldb-helper in Node.js (18 or newer, no packages). Copy it, or read it before you write
// your own. host.py says what a host has to know; this is the same, with promises.
//
// Numbers: the helper writes addresses and ids as plain integers of up to 64 bits, of which JSON.parse
// loses the low digits. Here an integer that a number does not hold safely becomes a BigInt, in both
// directions; compute with BigInt(value), which takes either. Runtimes that show a reviver the source
// of a number (Node 21 and newer) do not need the rewriting of the text below, older ones do.

'use strict';

const { spawn } = require('node:child_process');

// Finds numbers outside of strings, and wraps those that a number would garble: 2^53 and above.
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
  // A reviver is slow on a long answer, such as a megabyte of memory.
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

// Names of files may hold bytes that are not UTF-8. Each such byte becomes a lone surrogate, U+DC80 to
// U+DCFF, and the byte again on its way out.
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

// Of JSON text, in which stringify has written a lone surrogate as \udcxx.
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
  #pending = new Map(); // id -> { resolve, reject } of the requests that wait for their responses
  #events = [];
  #wake = () => {}; // tells events() that there is news
  #failure = null; // why nothing can be asked any more
  #length = null; // of the frame whose text is awaited

  constructor(program) {
    // Node makes descriptors 3 and 4 of the child from the last two, and hands down no others.
    this.child = spawn(program, ['3', '4'], {
      stdio: ['inherit', 'inherit', 'inherit', 'pipe', 'pipe'],
    });
    this.requests = this.child.stdio[3];
    this.messages = this.child.stdio[4];
    this.ended = new Promise((resolve) => {
      this.child.on('error', (error) => {
        this.#fail(error); // there is no such program
        resolve(error);
      });
      this.child.on('close', (code, signal) => resolve(code ?? signal));
    });
    // Reads all the time: the helper waits for a host that does not.
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
        // In the machine's byte order, as a Uint32Array has it.
        this.#length = new Uint32Array(Uint8Array.from(prefix).buffer)[0];
      }
      const text = this.messages.read(this.#length); // null until all of it is there
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
    // An answer without id (the request could not be read) belongs to the oldest: order is kept.
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

  // Sends a request. Resolves with its response, also one with status "error"; rejects when the
  // helper is gone.
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

  // for await (const event of helper.events()): each event once, in order. A loop that was left may
  // be followed by another one, which goes on where the first stopped. One loop at a time.
  async *events() {
    for (;;) {
      while (this.#events.length > 0) yield this.#events.shift();
      if (this.#failure) return;
      await new Promise((resolve) => (this.#wake = resolve));
    }
  }

  // Ends the helper: the end of its input is its only signal to stop, and a process that still exists
  // must be deleted before. Resolves with its exit status, or the name of the signal that ended it.
  async close() {
    await this.ask('deleteProcess').catch(() => {}); // an error where there is no process
    this.requests.end();
    return this.ended;
  }
}

module.exports = { Helper, parse, stringify, decode, encode };
