#include "check.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include <pipewire/pipewire.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.hpp"
#include "log.hpp"
#include "owned.hpp"
#include "plugin-log.hpp"

namespace hs_tool {

namespace {

using clock = std::chrono::steady_clock;

constexpr size_t doing_size = 256;
constexpr size_t max_log = 8192;
constexpr size_t max_line = 8192;
constexpr size_t max_findings = 12;

double seconds_since(clock::time_point start)
{
	return std::chrono::duration<double>(clock::now() - start).count();
}

/** Memory that the process of a check shares with this one. */
class shared_text
{
public:
	shared_text()
	    : text(static_cast<char *>(
		      mmap(nullptr, doing_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
	{
		if (text == MAP_FAILED)
			throw failure("There is no memory for a check.");
	}

	~shared_text()
	{
		munmap(text, doing_size);
	}

	shared_text(const shared_text &) = delete;
	shared_text &operator=(const shared_text &) = delete;

	char *text;
};

void write_all(int fd, const std::string &text)
{
	for (size_t done = 0; done < text.size();) {
		const ssize_t n = TEMP_FAILURE_RETRY(write(fd, text.data() + done, text.size() - done));
		if (n <= 0)
			return;
		done += static_cast<size_t>(n);
	}
}

/** The life of the process of a check. */
[[noreturn]] void look_and_exit(const check_case &check, const subject &plugin, char *doing, int result_fd, int log_fd,
				int complaints_fd)
{
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	setpgid(0, 0);
	dup2(log_fd, STDOUT_FILENO);
	dup2(log_fd, STDERR_FILENO);
	pw_init(nullptr, nullptr);
	hs_log_init();
	plugin_log::get().copy_to(complaints_fd);

	report found(doing, doing_size);
	try {
		check.look(plugin, &found);
	} catch (const std::exception &why) {
		found.fail(why.what());
	}
	nlohmann::json all = nlohmann::json::array();
	for (const finding &f : found.findings())
		all.push_back({static_cast<int>(f.level), f.text});
	write_all(result_fd, all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
	_exit(0);
}

/** Reads to the end of the pipe; false where that does not come in time. */
bool read_until(int fd, clock::time_point start, double time_limit, std::string *text)
{
	for (;;) {
		const double left = time_limit - seconds_since(start);
		pollfd waited{fd, POLLIN, 0};
		if (left <= 0 || TEMP_FAILURE_RETRY(poll(&waited, 1, static_cast<int>(left * 1000) + 1)) <= 0)
			return false;
		char part[4096];
		const ssize_t n = TEMP_FAILURE_RETRY(read(fd, part, sizeof(part)));
		if (n <= 0)
			return true;
		text->append(part, static_cast<size_t>(n));
	}
}

/** Returns the status of the process, and ends those that it has started. */
int wait_for_end(pid_t child)
{
	siginfo_t info{};
	TEMP_FAILURE_RETRY(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
	kill(-child, SIGKILL);
	int status = 0;
	TEMP_FAILURE_RETRY(waitpid(child, &status, 0));
	return status;
}

std::string during(const char *doing)
{
	return *doing ? std::string(", at this: ") + doing : "";
}

std::string end_of(int status, const char *doing)
{
	if (WIFSIGNALED(status))
		return std::string("It died of ") + strsignal(WTERMSIG(status)) + during(doing) + ".";
	return "It ended the whole process with status " + std::to_string(WEXITSTATUS(status)) + during(doing) + ".";
}

std::string read_log(FILE *file)
{
	std::string log(max_log, '\0');
	std::rewind(file);
	log.resize(std::fread(log.data(), 1, log.size(), file));
	return log;
}

std::vector<std::string> read_lines(FILE *file)
{
	std::vector<std::string> lines;
	std::rewind(file);
	char line[max_line];
	while (std::fgets(line, sizeof(line), file)) {
		line[std::strcspn(line, "\n")] = '\0';
		lines.emplace_back(line);
	}
	return lines;
}

void sum_up(outcome *done)
{
	done->result = verdict::ok;
	for (const finding &f : done->findings)
		done->result = std::max(done->result, f.level);
}

} // namespace

const char *to_text(verdict result)
{
	switch (result) {
	case verdict::ok:
		return "ok";
	case verdict::warning:
		return "warning";
	case verdict::error:
		break;
	}
	return "error";
}

report::report(char *doing_text, size_t size) : doing(doing_text), doing_size(size)
{
}

void report::begin(const std::string &what)
{
	std::snprintf(doing, doing_size, "%s", what.c_str());
}

void report::add(verdict level, const std::string &text)
{
	const bool is_known = std::any_of(all.begin(), all.end(), [&text](const finding &f) { return f.text == text; });
	if (is_known)
		return;
	if (all.size() < max_findings) {
		all.push_back({level, text});
		return;
	}
	++n_more;
	worst_of_more = std::max(worst_of_more, level);
}

std::vector<finding> report::findings() const
{
	std::vector<finding> told = all;
	if (n_more > 0)
		told.push_back({worst_of_more, "... and " + std::to_string(n_more) + " more."});
	return told;
}

void report::note(const std::string &text)
{
	add(verdict::ok, text);
}

void report::warn(const std::string &text)
{
	add(verdict::warning, text);
}

void report::fail(const std::string &text)
{
	add(verdict::error, text);
}

outcome do_apart(const check_case &check, const subject &plugin, double time_limit)
{
	const auto start = clock::now();
	const shared_text doing;
	const hs_file_ptr log(std::tmpfile());
	const hs_file_ptr complaints(std::tmpfile());
	int ends[2];
	if (!log || !complaints || pipe2(ends, O_CLOEXEC) < 0)
		throw failure(std::string("A check cannot be started: ") + std::strerror(errno) + ".");
	const hs_fd reader(ends[0]);
	hs_fd writer(ends[1]);

	std::fflush(nullptr);
	const pid_t child = fork();
	if (child < 0)
		throw failure(std::string("A check cannot be started: ") + std::strerror(errno) + ".");
	if (child == 0)
		look_and_exit(check, plugin, doing.text, writer.get(), fileno(log.get()), fileno(complaints.get()));
	close(writer.release());

	std::string text;
	const bool in_time = read_until(reader.get(), start, time_limit, &text);
	if (!in_time)
		kill(child, SIGKILL);
	const int status = wait_for_end(child);

	outcome done{};
	const nlohmann::json all = nlohmann::json::parse(text, nullptr, false);
	if (!in_time) {
		char limit[32];
		std::snprintf(limit, sizeof(limit), "%g", time_limit);
		done.findings.push_back({verdict::error, std::string("It did not end within ") + limit + " s" +
								 during(doing.text) + "."});
	} else if (status != 0 || !all.is_array()) {
		done.findings.push_back({verdict::error, end_of(status, doing.text)});
	} else {
		for (const nlohmann::json &f : all)
			done.findings.push_back({static_cast<verdict>(f[0].get<int>()), f[1].get<std::string>()});
	}
	sum_up(&done);
	done.seconds = seconds_since(start);
	done.log = read_log(log.get());
	done.complaints = read_lines(complaints.get());
	return done;
}

} // namespace hs_tool
