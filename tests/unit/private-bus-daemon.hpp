/*
 * A dbus-daemon of a test's own, which stands for the system bus. It allows everything and ends with the
 * object, or with the test program.
 */
#pragma once

#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "owned.hpp"
#include "temp-dir.hpp"

class hs_private_bus_daemon
{
public:
	hs_private_bus_daemon()
	{
		const std::string config = directory / "bus.conf";
		hs_write_text(config, "<busconfig><type>session</type>"
				      "<listen>unix:path=" + directory / "socket" + "</listen>"
				      "<auth>EXTERNAL</auth>"
				      "<policy context=\"default\">"
				      "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/>"
				      "</policy></busconfig>");
		int ends[2];
		if (pipe(ends) < 0)
			throw std::system_error{errno, std::generic_category(), "pipe"};
		pid = fork();
		if (pid == 0) {
			close(ends[0]);
			run(config, ends[1]);
		}
		close(ends[1]);
		read_address(ends[0]);
		close(ends[0]);
	}

	~hs_private_bus_daemon()
	{
		kill();
	}

	hs_private_bus_daemon(const hs_private_bus_daemon &) = delete;
	hs_private_bus_daemon &operator=(const hs_private_bus_daemon &) = delete;

	/** A new connection. */
	hs_bus_ptr connect() const
	{
		sd_bus *bus = nullptr;
		sd_bus_new(&bus);
		sd_bus_set_address(bus, address.c_str());
		sd_bus_set_bus_client(bus, 1);
		const int r = sd_bus_start(bus);
		if (r < 0)
			throw std::system_error{-r, std::generic_category(), address};
		return hs_bus_ptr{bus};
	}

	/** Ends the daemon at once, as a crash would. */
	void kill()
	{
		if (pid <= 0)
			return;
		::kill(pid, SIGKILL);
		waitpid(pid, nullptr, 0);
		pid = -1;
	}

private:
	[[noreturn]] static void run(const std::string &config, int address_fd)
	{
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		/* It grumbles about limits and rejected messages, which is no business of a test's. */
		dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
		const std::string file = "--config-file=" + config;
		const std::string print = "--print-address=" + std::to_string(address_fd);
		execlp("dbus-daemon", "dbus-daemon", file.c_str(), "--nofork", "--nosyslog", print.c_str(), nullptr);
		_exit(127);
	}

	void read_address(int fd)
	{
		char text[512];
		ssize_t n;
		while (address.find('\n') == std::string::npos && (n = read(fd, text, sizeof(text))) > 0)
			address.append(text, static_cast<size_t>(n));
		if (address.empty())
			throw std::system_error{ENOENT, std::generic_category(), "dbus-daemon"};
		address.resize(address.find('\n'));
	}

	hs_temp_dir directory;
	std::string address;
	pid_t pid = -1;
};
