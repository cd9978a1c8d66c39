/*
 * A directory of a test's own, removed with everything in it at the end.
 */
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

class hs_temp_dir
{
public:
	hs_temp_dir() : root{(std::filesystem::temp_directory_path() / "hear-sense-XXXXXX").string()}
	{
		if (!mkdtemp(root.data()))
			throw std::system_error{errno, std::generic_category(), root};
	}

	~hs_temp_dir()
	{
		std::error_code ignored;
		std::filesystem::remove_all(root, ignored);
	}

	hs_temp_dir(const hs_temp_dir &) = delete;
	hs_temp_dir &operator=(const hs_temp_dir &) = delete;

	const std::string &path() const
	{
		return root;
	}

	/** The path of `name` in the directory. */
	std::string operator/(std::string_view name) const
	{
		return root + "/" + std::string{name};
	}

private:
	std::string root;
};

inline void hs_write_text(const std::string &path, std::string_view text)
{
	std::ofstream file{path, std::ios::binary | std::ios::trunc};
	file << text << std::flush;
	if (!file)
		throw std::system_error{errno, std::generic_category(), path};
}

/** The content of the file, "" where there is none. */
inline std::string hs_read_text(const std::string &path)
{
	std::ifstream file{path, std::ios::binary};
	return {std::istreambuf_iterator<char>{file}, {}};
}
