// The test framework is precompiled once, here, for all test programs.
