/*
 * Plays a target's corpus where there is no libFuzzer: replay FOLDER-OR-FILE...
 */
#include "fuzz.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> list_inputs(const char *path)
{
	if (!fs::is_directory(path))
		return {path};
	std::vector<fs::path> inputs;
	for (const fs::directory_entry &entry : fs::directory_iterator{path})
		inputs.push_back(entry.path());
	std::sort(inputs.begin(), inputs.end());
	return inputs;
}

void play(const fs::path &path)
{
	std::ifstream file{path, std::ios::binary};
	const std::string text{std::istreambuf_iterator<char>{file}, {}};
	HS_REQUIRE(file);
	std::printf("%s\n", path.c_str());
	std::fflush(stdout);
	const std::unique_ptr<char[]> bytes = hs_fuzz_copy(text);
	LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.get()), text.size());
}

} // namespace

int main(int argc, char **argv)
{
	size_t n_played = 0;
	LLVMFuzzerInitialize(&argc, &argv);
	for (int i = 1; i < argc; i++) {
		for (const fs::path &input : list_inputs(argv[i])) {
			play(input);
			n_played++;
		}
	}
	std::printf("%zu inputs\n", n_played);
	return n_played > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
