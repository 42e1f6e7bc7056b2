# Archive sniffing over hostile bytes.
orlimo_fuzzer(tarnsniff SOURCES fuzz_tarnsniff.cpp LIBS orlimo_archive)
