// Nothing: what all tests include is compiled once, with this file.
