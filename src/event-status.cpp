#include "event-status.hpp"

#include <cstddef>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <string>

#include "assert.hpp"
#include "owned.hpp"
#include "source.hpp"

namespace {

struct event_key {
	hs_source *source;
	std::optional<std::string> name;
};

/** An event_key to look up. */
struct event_view {
	const hs_source *source;
	const char *name;
};

struct event_order {
	using is_transparent = void;

	template <typename A, typename B>
	bool operator()(const A &left, const B &right) const
	{
		const event_view a = view(left);
		const event_view b = view(right);
		if (a.source != b.source)
			return std::less<>()(a.source, b.source);
		if (!a.name || !b.name)
			return !a.name && b.name;
		return std::strcmp(a.name, b.name) < 0;
	}

	/** All events of a source. */
	bool operator()(const event_key &key, const hs_source *source) const
	{
		return std::less<const hs_source *>()(key.source, source);
	}

	bool operator()(const hs_source *source, const event_key &key) const
	{
		return std::less<const hs_source *>()(source, key.source);
	}

private:
	static event_view view(const event_key &key)
	{
		return {key.source, hs_c_str(key.name)};
	}

	static event_view view(const event_view &view)
	{
		return view;
	}
};

struct event_status {
	bool is_enabled;
	/** How many were set before it for the first time. */
	size_t number;
};

} // namespace

struct hs_event_statuses {
	std::map<event_key, event_status, event_order> events;
	size_t n_ever_set;
};

hs_event_statuses *hs_event_statuses_new()
{
	auto *statuses = new (std::nothrow) hs_event_statuses{};
	HS_ASSERT(statuses);
	return statuses;
}

void hs_event_statuses_destroy(hs_event_statuses *statuses)
{
	if (!statuses)
		return;
	std::map<size_t, hs_source *> in_order;
	for (const auto &[key, status] : statuses->events)
		in_order.emplace(status.number, key.source);
	for (const auto &[number, source] : in_order)
		hs_source_dec_consumers(source);
	delete statuses;
}

bool hs_event_statuses_get(const hs_event_statuses *statuses, const hs_source *source, const char *name)
{
	const auto found = statuses->events.find(event_view{source, name});
	return found != statuses->events.end() && found->second.is_enabled;
}

void hs_event_statuses_set(hs_event_statuses *statuses, hs_source *source, const char *name, bool enabled)
{
	auto found = statuses->events.find(event_view{source, name});
	if (found == statuses->events.end()) {
		event_key key{source, std::nullopt};
		if (name)
			key.name = name;
		found = statuses->events.emplace(std::move(key), event_status{false, statuses->n_ever_set++}).first;
	}
	event_status &status = found->second;
	/* What the source says while it starts or stops is for those who wanted it before. */
	if (enabled && !status.is_enabled)
		hs_source_inc_consumers(source);
	else if (!enabled && status.is_enabled)
		hs_source_dec_consumers(source);
	status.is_enabled = enabled;
}

void hs_event_statuses_remove(hs_event_statuses *statuses, const hs_source *source)
{
	const auto [first, last] = statuses->events.equal_range(source);
	statuses->events.erase(first, last);
}
