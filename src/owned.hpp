/*
 * Owning handles for what the C libraries hand out.
 *
 * A handle is for locals and for half-made records; a record that sits in a list keeps a plain pointer
 * and frees it in its _destroy function.
 */
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <pipewire/properties.h>
#include <systemd/sd-bus.h>

#include <unistd.h>

/** Deleter that calls the C function `Release` and drops its result. */
template <auto Release>
struct hs_release {
	template <typename T>
	void operator()(T *p) const noexcept
	{
		static_cast<void>(Release(p));
	}
};

using hs_properties_ptr = std::unique_ptr<pw_properties, hs_release<pw_properties_free>>;
using hs_bus_ptr = std::unique_ptr<sd_bus, hs_release<sd_bus_unref>>;
using hs_creds_ptr = std::unique_ptr<sd_bus_creds, hs_release<sd_bus_creds_unref>>;
using hs_message_ptr = std::unique_ptr<sd_bus_message, hs_release<sd_bus_message_unref>>;

using hs_file_ptr = std::unique_ptr<FILE, hs_release<std::fclose>>;

/** Anything that malloc gave. */
template <typename T>
using hs_malloc_ptr = std::unique_ptr<T, hs_release<std::free>>;

/** The text, or null where there is none. */
inline const char *hs_c_str(const std::optional<std::string> &text)
{
	return text ? text->c_str() : nullptr;
}

/** A file descriptor; negative for none. */
class hs_fd
{
public:
	explicit hs_fd(int fd) : number(fd)
	{
	}

	~hs_fd()
	{
		if (number >= 0)
			close(number);
	}

	hs_fd(const hs_fd &) = delete;
	hs_fd &operator=(const hs_fd &) = delete;

	int get() const
	{
		return number;
	}

	/** The caller closes it from now on. */
	int release()
	{
		return std::exchange(number, -1);
	}

private:
	int number;
};
