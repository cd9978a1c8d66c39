/*
 * Replaces a file over and over as the daemon does, and prints what each write answered.
 *
 *	hs-write-file PATH FIRST COUNT
 *
 * The number-th write leaves a thousand lines that all say "number". Warnings go to standard error.
 */
#include <cstdio>
#include <cstdlib>

#include <pipewire/pipewire.h>

#include "atomic-file.hpp"
#include "log.hpp"

namespace {

constexpr int lines = 1000;

int write_lines(FILE *stream, void *data)
{
	for (int i = 0; i < lines; ++i)
		std::fprintf(stream, "%08ld\n", *static_cast<const long *>(data));
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc != 4) {
		std::fprintf(stderr, "usage: %s PATH FIRST COUNT\n", argv[0]);
		return EXIT_FAILURE;
	}
	pw_init(&argc, &argv);
	hs_log_init();
	const long first = std::atol(argv[2]);
	const long end = first + std::atol(argv[3]);
	for (long number = first; number < end; ++number)
		std::printf("%d\n", hs_atomic_file_write(argv[1], write_lines, &number));
	pw_deinit();
	return EXIT_SUCCESS;
}
