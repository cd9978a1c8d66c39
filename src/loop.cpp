#include "loop.hpp"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <type_traits>

#include <pipewire/loop.h>
#include <pipewire/main-loop.h>
#include <spa/utils/hook.h>

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "assert.hpp"
#include "dbus.hpp"
#include "event-status.hpp"
#include "log.hpp"
#include "owned.hpp"
#include "source.hpp"

struct bus_event_data {
	int32_t state;
	/** One reference, owned, of a private bus; borrowed of the main bus. */
	sd_bus *bus;
	bool is_main;
	/** Who a private bus was given to. */
	uid_t user;
	/** Borrowed. */
	hs_loop *loop;
	/** SPA_IO_ bits. */
	uint32_t mask;
	spa_source *io;
	spa_source *timer;
	spa_source *idle;
	/** What `io` is watched for. */
	uint32_t watched;
	/** What the timer is armed for; all zeros once it has fired. */
	timespec armed;
	/** The last call of sd_bus_process did something; what it has read beside that shows in no poll. */
	bool busy;
	/** Of a private bus; owned. Sees each message that has come whole and is valid. */
	sd_bus_slot *filter;
	/** The filter has seen a message since this was last cleared. */
	bool has_heard;
	/** Bytes that came since and were part of no such message. */
	uint64_t n_unfinished;
	/** Until when there has to be another, where there are such bytes; else 0. In usec of the monotonic clock. */
	uint64_t deadline;
	/** Owned. */
	hs_event_statuses *statuses;
	/** In the loop's event_data_list. */
	spa_list link;
};

static_assert(std::is_standard_layout_v<bus_event_data>);

namespace {

/** What the idle source does next. */
enum bus_state : int32_t {
	BUS_STATE_PROCESS = 0,
	BUS_STATE_DESTROY = 1,
	BUS_STATE_QUIT = 2,
};

constexpr uint64_t usec_per_sec = 1000000;
constexpr uint64_t nsec_per_usec = 1000;

/* Stands for "never": the timer stays armed, so that one call serves both cases. */
constexpr timespec far_future = {0x7fffffff, 999999999};

/* sd-bus itself would keep hundreds of thousands, for ever. */
constexpr uint64_t max_queued_messages = 1024;

/* Answers can be large: with more unread, a client gets no further ones until it has caught up. */
constexpr uint64_t max_queued_answers = 4;

/* sd-bus itself would keep up to 128 MiB of a message that never ends. Nothing here takes a long one. */
constexpr uint64_t max_unfinished_size = 1024 * 1024;
constexpr uint64_t max_unfinished_usec = 10 * usec_per_sec;

pw_loop *loop_of(const hs_loop *loop)
{
	return pw_main_loop_get_loop(loop->main_loop);
}

void destroy_loop_sources(bus_event_data *data)
{
	pw_loop *loop = loop_of(data->loop);
	for (spa_source *source : {data->io, data->timer, data->idle}) {
		if (source)
			pw_loop_destroy_source(loop, source);
	}
}

void bus_event_data_clear(bus_event_data *data)
{
	sd_bus_slot_unref(data->filter);
	destroy_loop_sources(data);
	hs_event_statuses_destroy(data->statuses);
}

void bus_event_data_destroy(bus_event_data *data)
{
	if (data->is_main) {
		pw_log_warn("Attempting to destroy bus event data for main bus");
		return;
	}
	pw_log_debug("Destroy bus event data: %p", static_cast<void *>(data));
	spa_list_remove(&data->link);
	data->loop->last_asked = nullptr;
	bus_event_data_clear(data);
	if (data->bus) {
		hs_dbus_remove_bus(data->bus);
		sd_bus_unref(data->bus);
	}
	delete data;
}

uint64_t now_usec()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<uint64_t>(now.tv_sec) * usec_per_sec + static_cast<uint64_t>(now.tv_nsec) / nsec_per_usec;
}

/*
 * How much sd-bus reads shows nowhere but here: the kernel takes it off the offset at which a peek would begin.
 * Nobody peeks at these sockets.
 */
constexpr int peek_offset = INT_MAX;

void restart_count(const bus_event_data *data)
{
	/* Emulators of other processors have no such counter. */
	if (setsockopt(data->io->fd, SOL_SOCKET, SO_PEEK_OFF, &peek_offset, sizeof(peek_offset)) < 0 &&
	    errno != ENOPROTOOPT)
		pw_log_warn("Could not count what is read from private bus %p: %m", static_cast<void *>(data->bus));
}

/** Bytes that were read since the count was restarted; none where nothing can be counted. */
uint64_t count_read(const bus_event_data *data)
{
	int offset = peek_offset;
	socklen_t size = sizeof(offset);
	if (getsockopt(data->io->fd, SOL_SOCKET, SO_PEEK_OFF, &offset, &size) < 0 || offset < 0)
		return 0;
	return static_cast<uint64_t>(peek_offset - offset);
}

/** Remembers what sd-bus has read without finding a message in it; what it read to authenticate is none. */
void watch_messages(bus_event_data *data, bool was_ready)
{
	if (!was_ready || data->has_heard) {
		data->n_unfinished = 0;
		data->deadline = 0;
		restart_count(data);
		return;
	}
	data->n_unfinished = count_read(data);
	if (data->n_unfinished > 0 && data->deadline == 0)
		data->deadline = now_usec() + max_unfinished_usec;
}

/** sd-bus never reads beyond a message before it has passed it on. */
int on_whole_message(sd_bus_message *, void *data, sd_bus_error *)
{
	static_cast<bus_event_data *>(data)->has_heard = true;
	return 0;
}

/**
 * While it lives the kernel gives the process no descriptor. Nothing on a private bus takes or opens one, and
 * sd-bus never closes those that come with a message which it drops.
 */
class no_new_descriptors
{
public:
	no_new_descriptors()
	{
		/* Not 0: with that, polling would fail. */
		const rlimit none{1, usual.rlim_max};
		if (is_known)
			setrlimit(RLIMIT_NOFILE, &none);
	}

	~no_new_descriptors()
	{
		if (is_known)
			setrlimit(RLIMIT_NOFILE, &usual);
	}

	no_new_descriptors(const no_new_descriptors &) = delete;
	no_new_descriptors &operator=(const no_new_descriptors &) = delete;

private:
	rlimit usual{};
	/** What the limit is may be kept from us: the hard one is never to be lowered. */
	const bool is_known = getrlimit(RLIMIT_NOFILE, &usual) == 0;
};

int process_private(sd_bus *bus)
{
	const no_new_descriptors guard;
	return sd_bus_process(bus, nullptr);
}

/** May destroy the record. */
void process(bus_event_data *data)
{
	pw_log_trace("process bus %p", static_cast<void *>(data->bus));
	const bool was_ready = !data->is_main && sd_bus_is_ready(data->bus) > 0;
	data->has_heard = false;
	const int r = data->is_main ? sd_bus_process(data->bus, nullptr) : process_private(data->bus);
	if (r >= 0) {
		data->busy = r > 0;
		if (!data->is_main)
			watch_messages(data, was_ready);
	} else if (data->is_main) {
		pw_log_error("Failed to process bus event: %s", std::strerror(-r));
		hs_loop_do_quit(data->loop, 0);
	} else {
		pw_log_debug("Failed to process bus event: %s", std::strerror(-r));
		bus_event_data_destroy(data);
	}
	pw_log_trace("process done");
}

void on_bus_io(void *data, int fd, uint32_t mask)
{
	auto *event_data = static_cast<bus_event_data *>(data);
	pw_log_trace("on_bus_io bus %p (fd %d, mask %x)", static_cast<void *>(event_data->bus), fd, mask);
	process(event_data);
}

void on_timeout(void *data, uint64_t expirations)
{
	auto *event_data = static_cast<bus_event_data *>(data);
	pw_log_debug("on_timeout bus %p (exp. %" PRIu64 ")", static_cast<void *>(event_data->bus), expirations);
	event_data->armed = {};
	process(event_data);
}

void on_idle(void *data)
{
	auto *event_data = static_cast<bus_event_data *>(data);
	pw_log_trace("on_idle bus %p (state %d)", static_cast<void *>(event_data->bus), event_data->state);
	switch (event_data->state) {
	case BUS_STATE_PROCESS:
		process(event_data);
		return;
	case BUS_STATE_DESTROY:
		/* Without the main bus there is nothing left to serve, nor anything to wait for. */
		if (event_data->is_main)
			hs_loop_do_quit(event_data->loop, 0);
		bus_event_data_destroy(event_data);
		return;
	case BUS_STATE_QUIT:
		hs_loop_do_quit(event_data->loop, 0);
		return;
	}
	HS_UNREACHABLE();
}

/*
 * sd-bus closes its descriptor while our source still watches it, and the kernel may give the number to the
 * next private bus before the source is gone. A duplicate is ours until we close it.
 */
spa_source *add_io(bus_event_data *data)
{
	const int fd = sd_bus_get_fd(data->bus);
	const int own_fd = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0);
	if (own_fd < 0)
		return nullptr;
	spa_source *io = pw_loop_add_io(loop_of(data->loop), own_fd, 0, true, on_bus_io, data);
	if (!io)
		close(own_fd);
	return io;
}

/** A record that fails leaves nothing behind in the loop. */
bool bus_event_data_init(bus_event_data *data, sd_bus *bus, bool is_main, hs_loop *loop)
{
	*data = {};
	data->bus = bus;
	data->is_main = is_main;
	data->loop = loop;
	if (!is_main && sd_bus_add_filter(bus, &data->filter, on_whole_message, data) < 0)
		return false;
	data->io = add_io(data);
	data->timer = pw_loop_add_timer(loop_of(loop), on_timeout, data);
	data->idle = pw_loop_add_idle(loop_of(loop), false, on_idle, data);
	if (data->io && data->timer && data->idle) {
		data->statuses = hs_event_statuses_new();
		return true;
	}
	sd_bus_slot_unref(data->filter);
	destroy_loop_sources(data);
	return false;
}

/** When a bus wants to be processed next. */
struct bus_wait {
	timespec timer;
	bool idle;
};

/** The bus is of no use any more: the idle source does what `state` says. */
bus_wait give_up(bus_event_data *data, bus_state state)
{
	data->state = state;
	data->mask = 0;
	return {far_future, true};
}

void update_mask(bus_event_data *data, int events)
{
	pw_log_trace("events 0x%x, POLLIN: 0x%x, POLLOUT: 0x%x", static_cast<unsigned int>(events),
		     static_cast<unsigned int>(events & POLLIN), static_cast<unsigned int>(events & POLLOUT));
	SPA_FLAG_UPDATE(data->mask, static_cast<uint32_t>(SPA_IO_IN), (events & POLLIN) != 0);
	SPA_FLAG_UPDATE(data->mask, static_cast<uint32_t>(SPA_IO_OUT), (events & POLLOUT) != 0);
}

/** How many messages wait for the client of a private bus to read them. */
uint64_t count_queued(const bus_event_data *data)
{
	uint64_t n_queued = 0;
	if (data->is_main || sd_bus_get_n_queued_write(data->bus, &n_queued) < 0)
		return 0;
	return n_queued;
}

/** Whether so much waits for the client that it can not be reading any more. */
bool is_stalled(const bus_event_data *data, uint64_t n_queued)
{
	if (n_queued <= max_queued_messages)
		return false;
	pw_log_warn("Closing private bus %p of user %u: its client has left %" PRIu64 " messages unread",
		    static_cast<void *>(data->bus), data->user, n_queued);
	return true;
}

/** Whether the client has begun a message that becomes no valid one. */
bool is_unfinished(const bus_event_data *data)
{
	if (data->deadline == 0)
		return false;
	const bool is_too_long = data->n_unfinished > max_unfinished_size;
	if (!is_too_long && now_usec() < data->deadline)
		return false;
	pw_log_warn("Closing private bus %p of user %u: its client has sent %s, and no valid message",
		    static_cast<void *>(data->bus), data->user,
		    is_too_long ? "more than a megabyte" : "a beginning ten seconds ago");
	return true;
}

/** A moment of the monotonic clock, in usec, as the timer takes it. */
timespec to_timespec(uint64_t usec)
{
	if (usec == UINT64_MAX)
		return far_future;
	return {static_cast<time_t>(usec / usec_per_sec), static_cast<long>(usec % usec_per_sec * nsec_per_usec)};
}

bus_wait ask_bus(bus_event_data *data)
{
	if (data->state != BUS_STATE_PROCESS)
		return give_up(data, static_cast<bus_state>(data->state));
	const int events = sd_bus_get_events(data->bus);
	if (events == -ENOTCONN) {
		pw_log_debug("Client closed the bus %p: %s", static_cast<void *>(data->bus), std::strerror(ENOTCONN));
		return give_up(data, BUS_STATE_DESTROY);
	}
	if (events < 0) {
		pw_log_warn("Could not get events for bus %p: %s", static_cast<void *>(data->bus),
			    std::strerror(-events));
		return give_up(data, BUS_STATE_QUIT);
	}
	const uint64_t n_queued = count_queued(data);
	if (is_stalled(data, n_queued) || is_unfinished(data))
		return give_up(data, BUS_STATE_DESTROY);
	update_mask(data, events);

	uint64_t usec = 0;
	const int r = sd_bus_get_timeout(data->bus, &usec);
	if (r < 0) {
		pw_log_warn("Could not get timeout on bus %p: %s", static_cast<void *>(data->bus), std::strerror(-r));
		return give_up(data, BUS_STATE_QUIT);
	}
	pw_log_trace("timeout_usec %" PRIu64 " (UINT64_MAX == %" PRIu64 ") on bus %p", usec, UINT64_MAX,
		     static_cast<void *>(data->bus));
	if (data->deadline != 0 && usec != 0)
		usec = std::min(usec, data->deadline);
	const bool is_paused = n_queued > max_queued_answers && usec != 0 && sd_bus_is_ready(data->bus) > 0;
	if (is_paused) {
		SPA_FLAG_CLEAR(data->mask, static_cast<uint32_t>(SPA_IO_IN));
		return {to_timespec(data->deadline != 0 ? data->deadline : UINT64_MAX), false};
	}
	if (usec == 0)
		return {far_future, true};
	return {to_timespec(usec), data->busy};
}

/* With many buses, telling the kernel each time what it knows would cost more than all else here. */
void update_io(bus_event_data *data)
{
	if (data->watched == data->mask)
		return;
	if (pw_loop_update_io(loop_of(data->loop), data->io, data->mask) < 0)
		pw_log_warn("Could not update io source for bus %p.", static_cast<void *>(data->bus));
	else
		data->watched = data->mask;
}

void update_timer(bus_event_data *data, timespec when)
{
	if (data->armed.tv_sec == when.tv_sec && data->armed.tv_nsec == when.tv_nsec)
		return;
	if (pw_loop_update_timer(loop_of(data->loop), data->timer, &when, nullptr, true) < 0)
		pw_log_warn("Could not update timer source for bus %p.", static_cast<void *>(data->bus));
	else
		data->armed = when;
}

void bus_event_data_update(bus_event_data *data)
{
	HS_ASSERT_TEXT(data->bus, "bus");
	HS_ASSERT_TEXT(loop_of(data->loop), "loop");

	const bus_wait wait = ask_bus(data);
	update_io(data);
	update_timer(data, wait.timer);
	if (pw_loop_enable_idle(loop_of(data->loop), data->idle, wait.idle) < 0)
		pw_log_warn("Could not disable idle source for bus %p.", static_cast<void *>(data->bus));
}

void before_poll(void *data)
{
	auto *loop = static_cast<hs_loop *>(data);
	pw_log_trace("before poll %p", static_cast<void *>(loop));
	bus_event_data *event_data;
	bus_event_data *next;
	spa_list_for_each_safe(event_data, next, &loop->event_data_list, link)
		bus_event_data_update(event_data);
}

void after_poll(void *data)
{
	pw_log_trace("after poll %p", data);
}

constexpr spa_loop_control_hooks loop_hooks = [] {
	spa_loop_control_hooks hooks{};
	hooks.version = SPA_VERSION_LOOP_CONTROL_HOOKS;
	hooks.before = before_poll;
	hooks.after = after_poll;
	return hooks;
}();

bus_event_data *find_bus(hs_loop *loop, const sd_bus *bus)
{
	if (loop->last_asked && loop->last_asked->bus == bus)
		return loop->last_asked;
	bus_event_data *data;
	spa_list_for_each(data, &loop->event_data_list, link) {
		if (data->bus == bus) {
			loop->last_asked = data;
			return data;
		}
	}
	return nullptr;
}

} // namespace

hs_loop *hs_loop_new()
{
	std::unique_ptr<hs_loop> loop(new (std::nothrow) hs_loop{});
	HS_ASSERT(loop);
	spa_list_init(&loop->event_data_list);
	loop->main_loop = pw_main_loop_new(nullptr);
	if (!loop->main_loop) {
		pw_log_error("Could not create main loop: %m");
		return nullptr;
	}
	pw_loop_add_signal(loop_of(loop.get()), SIGINT, hs_loop_do_quit, loop.get());
	pw_loop_add_signal(loop_of(loop.get()), SIGTERM, hs_loop_do_quit, loop.get());
	return loop.release();
}

void hs_loop_destroy(hs_loop *loop)
{
	if (!loop)
		return;
	bus_event_data *data;
	spa_list_consume(data, &loop->event_data_list, link) {
		pw_log_warn("Freeing bus event data at %p that should already have been destroyed",
			    static_cast<void *>(data));
		sd_bus_slot_unref(data->filter);
		hs_event_statuses_destroy(data->statuses);
		spa_list_remove(&data->link);
		delete data;
	}
	pw_main_loop_destroy(loop->main_loop);
	delete loop;
}

bool hs_loop_add_bus(hs_loop *loop, sd_bus *bus)
{
	HS_ASSERT(loop);
	HS_ASSERT(bus);
	if (find_bus(loop, bus)) {
		pw_log_error("Bus already added");
		return false;
	}
	std::unique_ptr<bus_event_data> data(new (std::nothrow) bus_event_data);
	HS_ASSERT_TEXT(data, "bus_event_data");
	if (!bus_event_data_init(data.get(), bus, false, loop))
		return false;
	spa_list_append(&loop->event_data_list, &data->link);
	static_cast<void>(data.release());
	return true;
}

void hs_loop_set_bus_user(hs_loop *loop, sd_bus *bus, uid_t user)
{
	bus_event_data *data = find_bus(loop, bus);
	HS_ASSERT(data);
	data->user = user;
}

hs_loop_bus_count hs_loop_count_buses(hs_loop *loop, uid_t user)
{
	hs_loop_bus_count count{};
	const bus_event_data *data;
	spa_list_for_each(data, &loop->event_data_list, link) {
		if (data->is_main)
			continue;
		++count.all;
		if (data->user == user)
			++count.of_user;
	}
	return count;
}

int hs_loop_run(hs_loop *loop, sd_bus *bus)
{
	bus_event_data main_data;
	if (!bus_event_data_init(&main_data, bus, true, loop))
		return -1;
	spa_list_append(&loop->event_data_list, &main_data.link);

	spa_hook hook{};
	pw_loop_add_hook(loop_of(loop), &hook, &loop_hooks, loop);
	const int result = pw_main_loop_run(loop->main_loop);
	spa_hook_remove(&hook);

	spa_list_remove(&main_data.link);
	loop->last_asked = nullptr;
	bus_event_data_clear(&main_data);
	return result;
}

void hs_loop_do_quit(void *data, int signal)
{
	auto *loop = static_cast<hs_loop *>(data);
	pw_log_debug("Got signal %d", signal);
	pw_log_info("Exiting.");
	bus_event_data *event_data;
	bus_event_data *next;
	spa_list_for_each_safe(event_data, next, &loop->event_data_list, link) {
		if (!event_data->is_main)
			bus_event_data_destroy(event_data);
	}
	pw_main_loop_quit(loop->main_loop);
}

sd_bus *hs_loop_bus_iterate(hs_loop *loop, void **cursor)
{
	HS_ASSERT(spa_list_is_initialized(&loop->event_data_list));
	const auto *last = static_cast<const bus_event_data *>(*cursor);
	spa_list *link = last ? last->link.next : loop->event_data_list.next;
	for (; link != &loop->event_data_list; link = link->next) {
		auto *data = SPA_CONTAINER_OF(link, bus_event_data, link);
		*cursor = data;
		if (!data->is_main) {
			loop->last_asked = data;
			return data->bus;
		}
	}
	return nullptr;
}

bool hs_loop_bus_get_event_status(hs_loop *loop, sd_bus *bus, const hs_source *source, const char *name, bool *enabled)
{
	bus_event_data *data = find_bus(loop, bus);
	if (!data)
		return false;
	*enabled = hs_event_statuses_get(data->statuses, source, name);
	return true;
}

void hs_loop_bus_set_event_status(hs_loop *loop, sd_bus *bus, const char *name, hs_source *source, bool enabled)
{
	bus_event_data *data = find_bus(loop, bus);
	HS_ASSERT_TEXT(data, "bus_event_data");
	hs_event_statuses_set(data->statuses, source, name, enabled);
}

void hs_loop_remove_event_status(hs_loop *loop, const hs_source *source)
{
	bus_event_data *data;
	spa_list_for_each(data, &loop->event_data_list, link)
		hs_event_statuses_remove(data->statuses, source);
}
