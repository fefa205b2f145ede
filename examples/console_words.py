"""The words of console.py. Most of them are gdb's names for lines of LLDB's own command line."""

from typing import NamedTuple


class Word(NamedTuple):
    names: tuple  # the first one is the word, the others are short for it
    takes: str  # its arguments, for help
    line: str  # LLDB's line for it, to which the arguments are added
    about: str


# The names: what they take | LLDB's line | what it does. Console sends LLDB's line, unless it has a
# function do_NAME, or PROTOCOL a command, for the first of the names.
TABLE = """
run r: [ARGUMENTS]            | process launch            | starts again, breakpoints stay
start: [ARGUMENTS]            | process launch            | starts again, to main
starti: [ARGUMENTS]           | process launch -s         | starts again, to the entry
launch file: PROGRAM [ARGS]   | target create             | starts another program, to its entry
attach: PID                   | process attach --pid      | debugs a running program
detach                        | process detach            | lets the program run on alone
kill k                        | process kill              | ends the program
quit q exit                   | quit                      | ends this; also Ctrl-D, twice
continue c: [COUNT]           | process continue          | to the next stop; c & does not wait
step s: [COUNT]               | thread step-in            | one line of source, into calls
next n: [COUNT]               | thread step-over          | one line of source, over calls
stepi si: [COUNT]             | thread step-inst          | one instruction, into calls
nexti ni: [COUNT]             | thread step-inst-over     | one instruction, over calls
finish fin                    | thread step-out           | to the caller
until u: LINE                 | thread until              | to that line, or the caller
interrupt                     | process interrupt         | stops the program; also Ctrl-C
wait                          |                           | waits for the stop
break b: PLACE [if CONDITION] | breakpoint set            | b alone lists them
tbreak: PLACE [if CONDITION]  | breakpoint set -o true    | a breakpoint for one stop
watch: VARIABLE, *ADDRESS     | watchpoint set            | stops at a write
delete d: [N]                 | breakpoint delete --force | all, or this one
disable: [N]                  | breakpoint disable        |
enable: [N]                   | breakpoint enable         |
backtrace bt where: [COUNT]   | bt                        | the call stack
frame f: N                    | frame select              | selects one of its frames
up: [COUNT]                   | up                        | the caller's frame
down: [COUNT]                 | down                      | the callee's frame
thread t: N                   | thread select             | selects a thread
threads                       | thread list               |
why                           | thread info               | why and where the thread stopped
context ctx: [on, off]        |                           | registers, code and stack at stops
list l: [PLACE]               | list                      | source
code: [ADDRESS]               | disassemble --pc          | some instructions
disassemble disas: [PLACE]    | disassemble --frame       | a whole function
x hexdump: [ADDRESS]          | memory read               | bytes; x/4gx ADDRESS has a format
regs: [all, NAME...]          | register read             | a star marks what has changed
print p: EXPRESSION           | expression --             | p/x EXPRESSION in hexadecimal
ptype whatis: TYPE            | type lookup               |
set: [var] NAME=VALUE         | expression --             | set args, set disassembly-flavor
info i: SUBJECT               |                           | the subjects are below
modules                       | image list -h -b          | the images and their bases
vmmap: [ADDRESS]              | memory region --all       | the memory's map
raw: [on, off]                |                           | also shows the messages
help h: [WORD]                | help                      | explains one of these words
"""

NOTES = """\
info knows {info}.
< LINE sends a line to the program. ! LINE is for LLDB, and so is a line with another of its words.

PLACE is a FUNCTION, FILE:LINE, LINE, ADDRESS, or +N (from the program counter). ADDRESS is a
number, a symbol, $REGISTER, or a sum of them: $sp+0x10. Tab completes. An empty line repeats steps,
c, x and code. "help protocol" lists the protocol's commands, which are words here too. Type their
arguments in order or by name: readMemory main length=64.
"""

# What info shows. The beginning of a name means the first that has it, so gdb's are first.
INFO = {
    "registers": "register read",
    "breakpoints": "breakpoint list",
    "threads": "thread list",
    "sharedlibrary": "image list --header --basename",
    "locals": "frame variable --no-args",
    "args": "frame variable --no-locals",
    "watchpoints": "watchpoint list",
    "frame": "frame info",
    "stack": "bt",
    "signals": "process handle",
    "symbol": "image lookup --address",
    "line": "source info",
    "program": "thread info",
    "proc": "memory region --all",
}
# The commands of the protocol that words stand for. They do more for a host than LLDB's lines.
PROTOCOL = {
    "continue": "continueExecution",
    "stepi": "stepInstruction",
    "nexti": "stepOver",
    "finish": "stepOut",
    "interrupt": "breakExecution",
    "kill": "stopExecution",
}
# What a command without data did.
SAID = {
    "attachToProcess": "attached to process {pid}",
    "detach": "detached: the program runs without this debugger",
    "stopExecution": "killed the program",
}
# gdb's settings, by LLDB's names.
SETTINGS = {
    "disassembly-flavor": "target.x86-disassembly-flavor",
    "follow-fork-mode": "target.process.follow-fork-mode",
}
# An empty line repeats these.
REPEATED = set("s step n next si stepi ni nexti c continue x code".split())

# The general registers. ARM's are those of 64 and of 32 bits.
X86_REGISTERS = "rax rbx rcx rdx rsi rdi rbp rsp r8 r9 r10 r11 r12 r13 r14 r15 rip rflags".split()
ARM_REGISTERS = [f"x{n}" for n in range(31)] + [f"r{n}" for n in range(13)]
ARM_REGISTERS += "fp lr sp pc cpsr".split()
# LLDB's description of a thread: the stop reason, the module and function, the file and line.
WHERE = (
    "{${thread.stop-reason}; }thread ${thread.index}{ (${thread.name})}; ${frame.pc}"
    "{ ${module.file.basename}{`${function.name-with-args}${function.pc-offset}}}"
    "{ at ${line.file.basename}:${line.number}}\\n"
)

WORDS = {}  # the rows, by each of their names
for text in TABLE.strip().splitlines():
    left, line, about = (cell.strip() for cell in text.split("|"))
    names, _, takes = left.partition(": ")
    row = Word(tuple(names.split()), takes, line, about)
    WORDS |= dict.fromkeys(row.names, row)
