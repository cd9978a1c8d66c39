/*
 * Owning handles for what sd-bus and the system hand out.
 */
#pragma once

#include <memory>
#include <utility>

#include <systemd/sd-bus.h>

#include <unistd.h>

namespace hs_ctl {

/** Deleter that calls the C function `Release` and drops its result. */
template <auto Release>
struct release {
	template <typename T>
	void operator()(T *p) const noexcept
	{
		static_cast<void>(Release(p));
	}
};

using bus_ptr = std::unique_ptr<sd_bus, release<sd_bus_close_unref>>;
using message_ptr = std::unique_ptr<sd_bus_message, release<sd_bus_message_unref>>;

/** A file descriptor; negative for none. */
class descriptor
{
public:
	explicit descriptor(int fd = -1) : number(fd)
	{
	}

	descriptor(descriptor &&other) noexcept : number(std::exchange(other.number, -1))
	{
	}

	descriptor &operator=(descriptor &&other) noexcept
	{
		std::swap(number, other.number);
		return *this;
	}

	~descriptor()
	{
		if (number >= 0)
			close(number);
	}

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

} // namespace hs_ctl
