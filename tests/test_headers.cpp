// Nothing but the place where the test framework's headers are compiled once for every suite.
