#include "context.hpp"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <pipewire/properties.h>

#include <unistd.h>

#include "bus-client.hpp"
#include "failing-new.hpp"
#include "log-capture.hpp"
#include "loop-bed.hpp"
#include "paper-plugin.hpp"
#include "pw-source.hpp"
#include "registry.hpp"

namespace {

class Context : public testing::Test
{
protected:
	Context()
	{
		const hs_socket_pair sockets = hs_new_socket_pair();
		bus = hs_new_bus_server(sockets.server);
		socket = sockets.client;
	}

	~Context() override
	{
		hs_context_destroy();
		close(socket);
	}

	/** With the bus's only reference. */
	hs_context *make()
	{
		return hs_context_new(pipewire(), core(), bed.get(), &registry, bus.release());
	}

	/* Memory that no destructor of theirs would survive. */
	pw_context *pipewire()
	{
		return reinterpret_cast<pw_context *>(&nothing[0]);
	}

	pw_core *core()
	{
		return reinterpret_cast<pw_core *>(&nothing[1]);
	}

	void add_node(hs_context *context, uint32_t id, const char *name)
	{
		auto *node = new hs_pw_source{};
		node->id = id;
		node->name = name;
		spa_list_append(&context->pw_sources, &node->link);
	}

	/** What was destroyed, in order: what stands after "destroy". */
	std::vector<std::string> destroyed() const
	{
		std::vector<std::string> names;
		for (const hs_log_capture::line &line : capture.lines()) {
			const size_t at = line.text.find(": destroy");
			if (at == std::string::npos)
				continue;
			const std::string rest = line.text.substr(at + 9);
			names.push_back(rest.empty() ? "context" : rest.substr(1));
		}
		return names;
	}

	hs_loop_bed bed;
	hs_registry registry{};
	uint64_t nothing[2]{};
	hs_bus_ptr bus;
	int socket;
	hs_log_capture capture;
};

using ContextDeathTest = Context;

} // namespace

TEST_F(Context, IsNotThereBeforeItIsMade)
{
	EXPECT_EQ(hs_context_get(), nullptr);
}

TEST_F(Context, HoldsWhatItWasMadeOf)
{
	sd_bus *main_bus = bus.get();
	hs_context *context = make();
	ASSERT_NE(context, nullptr);
	EXPECT_EQ(hs_context_get(), context);
	EXPECT_EQ(context->bus, main_bus);
	EXPECT_EQ(context->loop, bed.get());
	EXPECT_EQ(context->registry, &registry);
	EXPECT_EQ(context->pipewire, pipewire());
	EXPECT_EQ(context->core, core());
	ASSERT_NE(context->object_path_counts, nullptr);
	EXPECT_EQ(context->object_path_counts->dict.n_items, 0u);
	EXPECT_TRUE(spa_list_is_empty(&context->pw_sources));
	EXPECT_TRUE(spa_list_is_empty(&context->plugins));
	EXPECT_TRUE(spa_list_is_empty(&context->dbus_objects));
	EXPECT_FALSE(context->preview_enabled);
}

TEST_F(Context, ASecondOneIsTheFirstUnchanged)
{
	sd_bus *main_bus = bus.get();
	hs_context *first = make();
	hs_registry other{};
	EXPECT_EQ(hs_context_new(nullptr, nullptr, nullptr, &other, nullptr), first);
	EXPECT_EQ(first->bus, main_bus);
	EXPECT_EQ(first->loop, bed.get());
	EXPECT_EQ(first->registry, &registry);
	EXPECT_EQ(first->pipewire, pipewire());
	EXPECT_EQ(first->core, core());
}

TEST_F(Context, GivesTheLoopForLoopSources)
{
	EXPECT_EQ(hs_context_get_loop(make()), bed.pipewire());
}

TEST_F(Context, DestroyingNoneIsHarmless)
{
	hs_context_destroy();
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
	make();
	hs_context_destroy();
	hs_context_destroy();
	EXPECT_EQ(hs_context_get(), nullptr);
	EXPECT_EQ(destroyed(), std::vector<std::string>{"context"}) << capture.text();
}

TEST_F(Context, TellsWhichOneIsDestroyed)
{
	char expected[64];
	std::snprintf(expected, sizeof(expected), "%p: destroy", static_cast<void *>(make()));
	capture.clear();
	hs_context_destroy();
	ASSERT_EQ(capture.lines().size(), 1u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, expected);
	EXPECT_EQ(capture.lines()[0].level, SPA_LOG_LEVEL_DEBUG);
}

TEST_F(Context, AnotherCanBeMadeAfterwards)
{
	make();
	hs_context_destroy();
	hs_context *context = hs_context_new(nullptr, nullptr, bed.get(), nullptr, nullptr);
	EXPECT_EQ(hs_context_get(), context);
	EXPECT_EQ(context->bus, nullptr);
}

TEST_F(Context, ReleasesItsReferenceOfTheMainBus)
{
	make();
	EXPECT_FALSE(hs_peer_is_gone(socket));
	hs_context_destroy();
	EXPECT_TRUE(hs_peer_is_gone(socket));
}

TEST_F(Context, ReleasesOneReferenceOfTheMainBusOnly)
{
	const hs_bus_ptr mine{sd_bus_ref(bus.get())};
	make();
	hs_context_destroy();
	EXPECT_FALSE(hs_peer_is_gone(socket));
	EXPECT_EQ(sd_bus_is_open(mine.get()), 1);
}

TEST_F(Context, LeavesTheLoopAndTheRegistryAlone)
{
	make();
	hs_context_destroy();
	EXPECT_GE(pw_loop_iterate(bed.pipewire(), 0), 0);
	const uint64_t untouched[2]{};
	EXPECT_EQ(std::memcmp(nothing, untouched, sizeof(nothing)), 0);
	EXPECT_EQ(registry.registry, nullptr);
}

TEST_F(Context, DestroysPluginsThenNodesThenMembers)
{
	hs_context *context = make();
	hs_paper_plugin ear{context, "Ear"};
	hs_paper_plugin nose{context, "Nose"};
	hs_source *source = ear.add_source("AudioDevice0Input0.Unprocessed");
	ear.add_source("AudioDevice1Input0.Unprocessed");
	nose.add_source("AudioDevice0Input0.Unprocessed");
	add_node(context, 1, "AudioDevice0Input0.Unprocessed");
	add_node(context, 2, "AudioDevice1Input0.Unprocessed");
	sd_bus_add_object_manager(context->bus, nullptr, "/");
	/* The members' user data is freed before them: they must not look at it. */
	ASSERT_TRUE(hs_dbus_setup_source_interface(source, context->bus));

	capture.clear();
	hs_context_destroy();
	const std::vector<std::string> expected{
		"context",
		"plugin 'Ear'",
		"source configuration",
		"source configuration",
		"plugin 'Nose'",
		"source configuration",
		"pw-source AudioDevice0Input0.Unprocessed with id 1",
		"pw-source AudioDevice1Input0.Unprocessed with id 2",
		"dbus Id",
		"dbus AudioChain",
	};
	EXPECT_EQ(destroyed(), expected) << capture.text();
	for (const hs_log_capture::line &line : capture.lines())
		EXPECT_EQ(line.level, SPA_LOG_LEVEL_DEBUG) << line.text;
}

TEST_F(ContextDeathTest, NeedsMemory)
{
	EXPECT_DEATH(
		{
			hs_fail_call("new", 1, ENOMEM);
			make();
		},
		"'context' failed at .*context.cpp:[0-9]+ hs_context_new\\(\\)");
}
