#include "metrics.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "failing.hpp"
#include "log-capture.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "source.hpp"
#include "temp-dir.hpp"

extern "C" {
void *__real_malloc(size_t size);
char *__real_strdup(const char *text);

void *__wrap_malloc(size_t size)
{
	return hs_must_fail("malloc") ? nullptr : __real_malloc(size);
}

char *__wrap_strdup(const char *text)
{
	return hs_must_fail("strdup") ? nullptr : __real_strdup(text);
}
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
	return hs_must_fail("new") ? nullptr : ::operator new(size);
}

namespace {

using metrics_ptr = std::unique_ptr<hs_metrics, hs_release<hs_metrics_destroy>>;

class Metrics : public testing::Test
{
protected:
	Metrics()
	{
		std::strcpy(plugin.name, "foo");
		interface.name = "Foo plug-in";
		source.name = "AudioDevice0Input0.Unprocessed";
		source.object_path = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Foo";
		source.settings_interface = "com.orvel.HearSense.Settings.Foo";
		source.plugin = &plugin;
		source.interface = &interface;
		hs_metrics_init(directory.path().c_str());
	}

	~Metrics() override
	{
		hs_metrics_deinit();
		EXPECT_FALSE(hs_failure_is_due());
	}

	metrics_ptr create(uint32_t type = HS_METRICS_TYPE_SOURCE)
	{
		return metrics_ptr{hs_metrics_create(type, &source)};
	}

	static std::string content(std::string_view enabled, std::string_view disabled)
	{
		return "{\n    \"name\": \"Foo plug-in\",\n    \"source\": "
		       "\"AudioDevice0Input0.Unprocessed\",\n"
		       "    \"enabled_count\": " +
		       std::string{enabled} + ",\n    \"disabled_count\": " + std::string{disabled} +
		       ",\n    \"dbus_object_path\": "
		       "\"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Foo\",\n"
		       "    \"dbus_interface\": \"com.orvel.HearSense.Settings.Foo\"\n}\n";
	}

	void expect_one_warning(const std::string &warning)
	{
		ASSERT_EQ(log.complaints(), 1u) << log.text();
		EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, warning), 1u) << log.text();
		EXPECT_EQ(log.lines().back().text, warning);
	}

	hs_temp_dir directory;
	std::string file = directory / "foo_AudioDevice0Input0_Unprocessed_source_metrics.json";
	hs_plugin plugin{};
	hs_plugin_interface interface {
	};
	hs_source source{};
	hs_log_capture log;
};

using MetricsDeathTest = Metrics;

} // namespace

static_assert(offsetof(hs_metrics, type) < offsetof(hs_metrics, active));
static_assert(offsetof(hs_metrics, active) < offsetof(hs_metrics, data));
static_assert(offsetof(hs_source_metrics, source) < offsetof(hs_source_metrics, enabled_count));
static_assert(offsetof(hs_source_metrics, enabled_count) < offsetof(hs_source_metrics, disabled_count));

TEST_F(Metrics, ANewSourceGetsAFileWithZeroCounts)
{
	const metrics_ptr metrics = create();
	EXPECT_FALSE(std::filesystem::exists(file));
	hs_metrics_set_active(metrics.get(), true);
	EXPECT_EQ(hs_read_text(file), content("0", "0"));
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(Metrics, TheFileIsNamedAfterPluginAndSourceWithDotsAsUnderscores)
{
	std::strcpy(plugin.name, "bar");
	source.name = "a.b.c-d";
	hs_metrics_set_active(create().get(), true);
	EXPECT_TRUE(std::filesystem::exists(directory / "bar_a_b_c-d_source_metrics.json"));
	EXPECT_NE(hs_read_text(directory / "bar_a_b_c-d_source_metrics.json").find("\"source\": \"a.b.c-d\""),
		  std::string::npos);
}

TEST_F(Metrics, ASlashAtTheEndOfTheDirectoryIsNotDoubled)
{
	source.name = "x";
	hs_metrics_init((directory / "no-directory").c_str());
	hs_metrics_set_active(create().get(), true);
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN,
				 "Failed to write metrics file at path: " +
					 directory / "no-directory/foo_x_source_metrics.json"))
		<< log.text();
	log.clear();
	hs_metrics_init((directory / "no-directory/").c_str());
	hs_metrics_set_active(create().get(), true);
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN,
				 "Failed to write metrics file at path: " +
					 directory / "no-directory/foo_x_source_metrics.json"))
		<< log.text();
}

TEST_F(Metrics, CountsWhatIsEnabledAndDisabled)
{
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(hs_read_text(file), content("1", "0"));
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	hs_metrics_increment_counter(metrics.get(), "disabled_count");
	EXPECT_EQ(hs_read_text(file), content("2", "1"));
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(Metrics, AnExistingFileIsCountedOn)
{
	hs_write_text(file, content("41", "7"));
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	EXPECT_EQ(hs_read_text(file), content("41", "7"));
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(hs_read_text(file), content("42", "7"));
}

TEST_F(Metrics, TheFileIsTheOnlyMemory)
{
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	hs_write_text(file, content("100", "200"));
	hs_metrics_increment_counter(metrics.get(), "disabled_count");
	EXPECT_EQ(hs_read_text(file), content("100", "201"));

	std::filesystem::remove(file);
	hs_metrics_increment_counter(metrics.get(), "disabled_count");
	EXPECT_EQ(hs_read_text(file), content("0", "1"));
}

TEST_F(Metrics, WhileInactiveCountersStandStill)
{
	const metrics_ptr metrics = create();
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_FALSE(std::filesystem::exists(file));

	hs_metrics_set_active(metrics.get(), true);
	hs_metrics_set_active(metrics.get(), false);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(hs_read_text(file), content("0", "0"));
}

TEST_F(Metrics, MakingARecordInactiveRewritesTheFile)
{
	const metrics_ptr metrics = create();
	hs_write_text(file, "\"enabled_count\": 5, \"disabled_count\": 6");
	hs_metrics_set_active(metrics.get(), false);
	EXPECT_EQ(hs_read_text(file), content("5", "6"));
}

TEST_F(Metrics, AnEmptyFileStaysEmptyAndFreezesTheCounters)
{
	hs_write_text(file, "");
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	expect_one_warning("Failed to read metrics file at path: " + file);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_TRUE(std::filesystem::exists(file));
	EXPECT_EQ(hs_read_text(file), "");
}

TEST_F(Metrics, AFileThatCannotBeOpenedIsLeftAlone)
{
	hs_write_text(file, content("5", "6"));
	/* Root may open everything, so the look is taken as nobody. */
	std::filesystem::permissions(directory.path(), std::filesystem::perms{0777});
	std::filesystem::permissions(file, std::filesystem::perms{0});
	EXPECT_EXIT(
		{
			if (geteuid() == 0 && setuid(65534) < 0)
				_exit(3);
			hs_metrics_set_active(create().get(), true);
			_exit(log.contains(SPA_LOG_LEVEL_WARN,
					   "Failed to open metrics file at path: " + file) &&
					      log.complaints() == 1
				      ? 0
				      : 1);
		},
		testing::ExitedWithCode(0), "");
	std::filesystem::permissions(file, std::filesystem::perms{0644});
	EXPECT_EQ(hs_read_text(file), content("5", "6"));
}

TEST_F(Metrics, ADirectoryInPlaceOfTheFileIsWarnedOf)
{
	std::filesystem::create_directory(file);
	hs_metrics_set_active(create().get(), true);
	expect_one_warning("Failed to read metrics file at path: " + file);
}

TEST_F(Metrics, AFifoInPlaceOfTheFileIsNotWaitedFor)
{
	ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
	hs_metrics_set_active(create().get(), true);
	expect_one_warning("Failed to read metrics file at path: " + file);
}

TEST_F(Metrics, OnlyTheFirst1023BytesAreRead)
{
	/* The key ends just where the reading ends, so its number is not seen. */
	const std::string key = "\"enabled_count\": ";
	std::string text(1023 - key.size(), ' ');
	text += key + "5 \"disabled_count\": 6";
	hs_write_text(file, text);
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(hs_read_text(file), content("0", "0"));

	hs_write_text(file, text.substr(1));
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(hs_read_text(file), content("5", "0"));
}

TEST_F(Metrics, TheFirstOccurrenceOfAKeyCountsWhereverItIs)
{
	hs_write_text(file,
		      "{ \"name\": \"enabled_count\", \"enabled_count\": 5, \"disabled_count\" : : \" 12 }");
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(hs_read_text(file), content("0", "12"));
}

TEST_F(Metrics, AMissingKeyCountsFromZero)
{
	hs_write_text(file, "{}");
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	hs_metrics_increment_counter(metrics.get(), "disabled_count");
	EXPECT_EQ(hs_read_text(file), content("0", "1"));
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST_F(Metrics, CountsAreCutTo32Bits)
{
	hs_write_text(file, "\"enabled_count\": 4294967301 \"disabled_count\": -3");
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(hs_read_text(file), content("5", "-3"));
}

TEST_F(Metrics, CountsAreDecimal)
{
	hs_write_text(file, "\"enabled_count\": 010 \"disabled_count\": 0x10");
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(hs_read_text(file), content("10", "0"));
}

TEST_F(Metrics, AnUnknownCounterIsWarnedOfAndNothingIsWritten)
{
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	hs_write_text(file, "untouched");
	hs_metrics_increment_counter(metrics.get(), "used_count");
	expect_one_warning("Unknown counter name: used_count");
	EXPECT_EQ(hs_read_text(file), "untouched");
}

TEST_F(Metrics, BeforeInitialisationThereAreNoRecords)
{
	hs_metrics_deinit();
	EXPECT_EQ(create(), nullptr);
	expect_one_warning("Metrics module is not initialized. Call hs_metrics_init() first.");
}

TEST_F(Metrics, ARecordOutlivesTheModule)
{
	metrics_ptr metrics = create();
	hs_metrics_deinit();
	hs_metrics_set_active(metrics.get(), true);
	expect_one_warning("Metrics path is not set");
	metrics.reset();
}

TEST_F(Metrics, DeinitialisingTwiceOrNeverInitialisedIsFine)
{
	hs_metrics_deinit();
	hs_metrics_deinit();
	EXPECT_TRUE(log.lines().empty());
}

TEST_F(Metrics, ANullRecordIsWarnedOf)
{
	hs_metrics_set_active(nullptr, true);
	hs_metrics_increment_counter(nullptr, "enabled_count");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Metrics object is NULL"), 2u) << log.text();
	hs_metrics_destroy(nullptr);
}

TEST_F(Metrics, ARecordOfAnotherTypeHasNoDataAndIsReportedAsUnknown)
{
	const metrics_ptr metrics = create(5);
	ASSERT_NE(metrics, nullptr);
	EXPECT_EQ(metrics->data, nullptr);
	EXPECT_EQ(log.complaints(), 0u);

	hs_metrics_set_active(metrics.get(), true);
	expect_one_warning("Unknown metrics type: 5");
	EXPECT_FALSE(metrics->active);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(log.complaints(), 1u) << log.text();

	metrics->active = true;
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Unknown metrics type: 5"), 2u) << log.text();
}

TEST_F(Metrics, AMissingNameIsPrintedAsNull)
{
	interface.name = nullptr;
	hs_metrics_set_active(create().get(), true);
	EXPECT_NE(hs_read_text(file).find("    \"name\": \"(null)\",\n"), std::string::npos);
}

TEST_F(Metrics, ADirectoryThatDoesNotExistIsWarnedOf)
{
	std::filesystem::remove_all(directory.path());
	hs_metrics_set_active(create().get(), true);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to open tmp file " + file + ".tmp: "), 1u)
		<< log.text();
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to write metrics file at path: " + file), 1u)
		<< log.text();
}

TEST_F(Metrics, TheFileIsReplacedAtomically)
{
	hs_write_text(file, content("1", "2"));
	std::filesystem::create_hard_link(file, directory / "link");
	const metrics_ptr metrics = create();
	hs_metrics_set_active(metrics.get(), true);
	hs_metrics_increment_counter(metrics.get(), "enabled_count");
	EXPECT_EQ(hs_read_text(directory / "link"), content("1", "2"));
	EXPECT_EQ(hs_read_text(file), content("2", "2"));
	EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));
}

TEST_F(Metrics, FailedAllocationsOfTheRecordAreWarnedOf)
{
	hs_fail_call("new", 1, ENOMEM);
	EXPECT_EQ(create(), nullptr);
	expect_one_warning("Failed to allocate memory for metrics");
	log.clear();
	hs_fail_call("new", 2, ENOMEM);
	EXPECT_EQ(create(), nullptr);
	expect_one_warning("Failed to allocate memory for source metrics");
}

TEST_F(Metrics, FailedAllocationsOfThePathAreWarnedOf)
{
	const metrics_ptr metrics = create();
	hs_fail_call("strdup", 1, ENOMEM);
	hs_metrics_set_active(metrics.get(), true);
	expect_one_warning("Failed to allocate memory for sanitized source name");
	log.clear();
	hs_fail_call("malloc", 1, ENOMEM);
	hs_metrics_set_active(metrics.get(), true);
	expect_one_warning("Failed to allocate memory for metrics file path");
	EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(MetricsDeathTest, ANullDirectoryAborts)
{
	EXPECT_EXIT(hs_metrics_init(nullptr), testing::KilledBySignal(SIGABRT),
		    "'path' failed at .*hs_metrics_init\\(\\)");
}
