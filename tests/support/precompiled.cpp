// The source of the test suite's precompiled header (tests/CMakeLists.txt): nothing of its own.
