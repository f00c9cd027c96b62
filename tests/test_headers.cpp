// The precompiled headers of the test framework, which all suites share, are built with this file.
