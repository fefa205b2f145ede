"""What several tests share.

machine   what a test learns from the machine, not from the helper: processes, memory, ports, servers
host      a host that checks each message against the protocol's schema
pages     sessions written as pages: tests/sessions and docs/transcripts
stub      a debug server that answers as a test wants
plugin    what pytest needs: fixtures, the collection of pages, the end of each test's processes
"""
