/*
 * A process that writes decimals with a comma, as many a user's does, while the object lives.
 *
 * The locale is made on the spot, since none but "C" need be installed; Debian's package "locales" has the
 * tool and its character maps.
 */
#pragma once

#include <clocale>
#include <cstdlib>
#include <string>

#include "temp-dir.hpp"

class hs_comma_locale
{
public:
	hs_comma_locale() : previous{std::setlocale(LC_NUMERIC, nullptr)}
	{
		const std::string source = directory / "source";
		const std::string target = directory / "comma";
		hs_write_text(source, "LC_NUMERIC\n"
				      "decimal_point \",\"\n"
				      "thousands_sep \".\"\n"
				      "grouping 3;3\n"
				      "END LC_NUMERIC\n");
		/* It complains about the other categories; active() tells whether this one came to be. */
		const std::string command =
			"localedef -c -i '" + source + "' '" + target + "' >/dev/null 2>&1";
		if (std::system(command.c_str()) == -1)
			return;
		setenv("LOCPATH", directory.path().c_str(), 1);
		std::setlocale(LC_NUMERIC, "comma");
		unsetenv("LOCPATH");
	}

	~hs_comma_locale()
	{
		std::setlocale(LC_NUMERIC, previous.c_str());
	}

	hs_comma_locale(const hs_comma_locale &) = delete;
	hs_comma_locale &operator=(const hs_comma_locale &) = delete;

	/** Whether it worked; without, a test shows nothing. */
	static bool active()
	{
		return std::string{std::localeconv()->decimal_point} == ",";
	}

private:
	hs_temp_dir directory;
	std::string previous;
};
