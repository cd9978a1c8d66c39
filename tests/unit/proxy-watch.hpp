/*
 * Whether a proxy of PipeWire has been destroyed, rather than left to the end of its connection.
 */
#pragma once

#include <pipewire/proxy.h>

class hs_proxy_watch
{
public:
	/** `proxy` is of any type that is one. */
	explicit hs_proxy_watch(void *proxy)
	{
		pw_proxy_add_listener(static_cast<pw_proxy *>(proxy), &listener, &events, this);
	}

	~hs_proxy_watch()
	{
		if (!destroyed)
			spa_hook_remove(&listener);
	}

	hs_proxy_watch(const hs_proxy_watch &) = delete;
	hs_proxy_watch &operator=(const hs_proxy_watch &) = delete;

	bool is_destroyed() const
	{
		return destroyed;
	}

private:
	static void on_destroy(void *data)
	{
		static_cast<hs_proxy_watch *>(data)->destroyed = true;
	}

	static constexpr pw_proxy_events events = [] {
		pw_proxy_events callbacks{};
		callbacks.version = PW_VERSION_PROXY_EVENTS;
		callbacks.destroy = on_destroy;
		return callbacks;
	}();

	spa_hook listener{};
	bool destroyed = false;
};
