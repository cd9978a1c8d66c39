/* SPDX-License-Identifier: MIT */
/*
 * A client of hear-sense with sd-bus: lists what there is, and follows a public event on the system bus and
 * one that is not public on a private bus. With a number, changes a setting first.
 *
 * Usage: listen [THRESHOLD]
 * Status: 0 at SIGINT and SIGTERM; 1 when the daemon goes or cannot be reached, to be started again.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#define SERVICE "com.orvel.HearSense"
#define ROOT "/com/orvel/HearSense/"
#define OBJECTS "org.freedesktop.DBus.ObjectManager"
#define PROPERTIES "org.freedesktop.DBus.Properties"

/* A connection: the system bus, where messages are addressed to the service, or a private bus, where they are not. */
struct connection {
	sd_bus *bus;
	const char *service;
	/* What to set Threshold to; null to leave it. */
	const double *threshold;
};

/* Whatever fails ends the client. */
static int check(int r, const char *doing, const sd_bus_error *error)
{
	if (r >= 0)
		return r;
	fprintf(stderr, "Could not %s: %s\n", doing, error && error->message ? error->message : strerror(-r));
	exit(EXIT_FAILURE);
}

static int reading(int r)
{
	return check(r, "read a message", NULL);
}

/* A number, or a structure of them; anything else is passed over. */
static void print_value(sd_bus_message *m)
{
	const char *type, *member;
	double number;
	reading(sd_bus_message_peek_type(m, NULL, &type));
	if (strcmp(type, "d") == 0) {
		reading(sd_bus_message_read(m, "v", "d", &number));
		printf(" %.1f", number);
	} else if (strcmp(type, "a{sv}") == 0) {
		reading(sd_bus_message_enter_container(m, 'v', "a{sv}"));
		reading(sd_bus_message_enter_container(m, 'a', "{sv}"));
		while (reading(sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
			reading(sd_bus_message_read(m, "s", &member));
			printf(" %s", member);
			print_value(m);
			reading(sd_bus_message_exit_container(m));
		}
		reading(sd_bus_message_exit_container(m));
		reading(sd_bus_message_exit_container(m));
	} else {
		reading(sd_bus_message_skip(m, "v"));
	}
}

/* An "a{sv}": of the properties, the values of the two events are printed. */
static void read_properties(sd_bus_message *m, const char *path)
{
	const char *name;
	reading(sd_bus_message_enter_container(m, 'a', "{sv}"));
	while (reading(sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
		reading(sd_bus_message_read(m, "s", &name));
		if (strcmp(name, "Loudness") == 0 || strcmp(name, "Level") == 0) {
			printf("%s: %s", path + strlen(ROOT), name);
			print_value(m);
			printf("\n");
		} else {
			reading(sd_bus_message_skip(m, "v"));
		}
		reading(sd_bus_message_exit_container(m));
	}
	reading(sd_bus_message_exit_container(m));
}

/* A refusal is for the user to read, and no reason to end. */
static void set_threshold(struct connection *to, const char *path)
{
	sd_bus_error error = SD_BUS_ERROR_NULL;
	const int r = sd_bus_set_property(to->bus, to->service, path, SERVICE ".Settings.Loudness", "Threshold", &error,
					  "d", *to->threshold);
	if (r < 0)
		printf("%s: Threshold stays as it was: %s (%s)\n", path + strlen(ROOT),
		       error.message ? error.message : strerror(-r), error.name);
	else
		printf("%s: Threshold is set to %.1f\n", path + strlen(ROOT), *to->threshold);
	sd_bus_error_free(&error);
}

/* An "oa{sa{sv}}": what there is at a path, as GetManagedObjects and InterfacesAdded tell it. */
static void read_object(struct connection *from, sd_bus_message *m)
{
	sd_bus_error error = SD_BUS_ERROR_NULL;
	const char *path, *interface;
	reading(sd_bus_message_read(m, "o", &path));
	reading(sd_bus_message_enter_container(m, 'a', "{sa{sv}}"));
	while (reading(sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
		reading(sd_bus_message_read(m, "s", &interface));
		if (from->service && strcmp(interface, SERVICE ".Source") == 0)
			printf("source %s\n", path + strlen(ROOT));
		if (from->service && strcmp(interface, SERVICE ".PluginInstance") == 0)
			printf("plug-in %s\n", path + strlen(ROOT));
		read_properties(m, path);
		if (from->threshold && strcmp(interface, SERVICE ".Settings.Loudness") == 0)
			set_threshold(from, path);
		/* Nothing is told on a private bus before it is asked for. */
		if (strcmp(interface, SERVICE ".Events.Loudness.Level") == 0)
			check(sd_bus_set_property(from->bus, from->service, path, interface, "EnableEvent", &error, "b",
						  1),
			      "enable an event", &error);
		reading(sd_bus_message_exit_container(m));
	}
	reading(sd_bus_message_exit_container(m));
}

static int on_changed(sd_bus_message *m, void *data, sd_bus_error *error)
{
	(void)data;
	(void)error;
	reading(sd_bus_message_skip(m, "s"));
	read_properties(m, sd_bus_message_get_path(m));
	return 0;
}

/* A microphone that is plugged in later. */
static int on_added(sd_bus_message *m, void *data, sd_bus_error *error)
{
	(void)error;
	read_object(data, m);
	return 0;
}

/* Subscribes before it looks, so that nothing falls between. */
static void follow(struct connection *of, sd_event *loop)
{
	sd_bus_error error = SD_BUS_ERROR_NULL;
	sd_bus_message *m = NULL;
	check(sd_bus_match_signal(of->bus, NULL, of->service, NULL, PROPERTIES, "PropertiesChanged", on_changed, of),
	      "subscribe", NULL);
	check(sd_bus_match_signal(of->bus, NULL, of->service, "/", OBJECTS, "InterfacesAdded", on_added, of),
	      "subscribe", NULL);
	check(sd_bus_call_method(of->bus, of->service, "/", OBJECTS, "GetManagedObjects", &error, &m, NULL),
	      "ask hear-sense what there is", &error);
	reading(sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}"));
	while (reading(sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}")) > 0) {
		read_object(of, m);
		reading(sd_bus_message_exit_container(m));
	}
	sd_bus_message_unref(m);
	check(sd_bus_attach_event(of->bus, loop, SD_EVENT_PRIORITY_NORMAL), "listen", NULL);
	check(sd_bus_set_exit_on_disconnect(of->bus, 1), "listen", NULL);
}

/* The daemon hands out a descriptor, over which it speaks D-Bus with nobody between. */
static sd_bus *open_private_bus(sd_bus *system)
{
	sd_bus_error error = SD_BUS_ERROR_NULL;
	sd_bus_message *m = NULL;
	sd_bus *bus = NULL;
	int fd = -1;
	check(sd_bus_call_method(system, SERVICE, "/", SERVICE, "GetPrivateBus", &error, &m, "s", "listen"),
	      "take a private bus", &error);
	reading(sd_bus_message_read(m, "h", &fd));
	/* The message closes its own. */
	fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
	sd_bus_message_unref(m);
	check(sd_bus_new(&bus), "make a connection", NULL);
	check(sd_bus_set_fd(bus, fd, fd), "use the descriptor", NULL);
	check(sd_bus_set_anonymous(bus, 1), "be anonymous", NULL);
	check(sd_bus_start(bus), "speak on the private bus", NULL);
	return bus;
}

int main(int argc, char *argv[])
{
	char *end = NULL;
	const double threshold = argc > 1 ? strtod(argv[1], &end) : 0;
	if (argc > 2 || (end && (end == argv[1] || *end))) {
		fprintf(stderr, "Usage: %s [THRESHOLD]\n", argv[0]);
		return EXIT_FAILURE;
	}
	setvbuf(stdout, NULL, _IOLBF, 0);

	sigset_t ends;
	sigemptyset(&ends);
	sigaddset(&ends, SIGINT);
	sigaddset(&ends, SIGTERM);
	sigprocmask(SIG_BLOCK, &ends, NULL);
	sd_event *loop = NULL;
	check(sd_event_default(&loop), "make a loop", NULL);
	check(sd_event_add_signal(loop, NULL, SIGINT, NULL, NULL), "wait for SIGINT", NULL);
	check(sd_event_add_signal(loop, NULL, SIGTERM, NULL, NULL), "wait for SIGTERM", NULL);

	struct connection system = {NULL, SERVICE, argc > 1 ? &threshold : NULL};
	struct connection private = {NULL, NULL, NULL};
	check(sd_bus_open_system(&system.bus), "reach the system bus", NULL);
	follow(&system, loop);
	private.bus = open_private_bus(system.bus);
	follow(&private, loop);

	/* With the daemon goes its private bus, and with that the loop ends. */
	const int status = sd_event_loop(loop);
	if (status != 0)
		fprintf(stderr, "hear-sense has gone\n");
	sd_bus_flush_close_unref(private.bus);
	sd_bus_flush_close_unref(system.bus);
	sd_event_unref(loop);
	return status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
