"""What the tests share.

machine    the machine: processes, programs, symbols, ports, servers
linux      what only Linux has: memory and mappings as the kernel shows them, preloaded libraries
checking   Host: an example host that checks every message against docs/protocol.schema.json
stub       a debug server whose answers a test writes
isolation  what a test leaves is removed: processes, files, limits, variables

conftest.py in the repository's root connects them with pytest. script/soak and
script/record-transcripts use them without pytest.
"""
