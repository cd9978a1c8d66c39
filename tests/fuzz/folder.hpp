/*
 * A folder for what is written.
 */
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.hpp"

class hs_fuzz_folder
{
public:
	hs_fuzz_folder() : root{std::filesystem::temp_directory_path().string() + "/hear-sense-fuzz-XXXXXX"}
	{
		HS_REQUIRE(mkdtemp(root.data()));
	}

	~hs_fuzz_folder()
	{
		std::error_code ignored;
		std::filesystem::remove_all(root, ignored);
	}

	hs_fuzz_folder(const hs_fuzz_folder &) = delete;
	hs_fuzz_folder &operator=(const hs_fuzz_folder &) = delete;

	const std::string &path() const
	{
		return root;
	}

	std::string operator/(std::string_view name) const
	{
		return root + "/" + std::string{name};
	}

private:
	std::string root;
};

inline void hs_fuzz_write(const std::string &path, std::string_view text)
{
	std::ofstream file{path, std::ios::binary | std::ios::trunc};
	file << text << std::flush;
	HS_REQUIRE(file);
}

inline std::string hs_fuzz_read(const std::string &path)
{
	std::ifstream file{path, std::ios::binary};
	HS_REQUIRE(file);
	return {std::istreambuf_iterator<char>{file}, {}};
}
