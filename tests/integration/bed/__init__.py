"""The test bed: real servers on private sockets, and the daemon under test among them."""
