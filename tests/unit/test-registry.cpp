#include "registry.hpp"

#include <string>
#include <vector>

#include <pipewire/core.h>
#include <pipewire/extensions/metadata.h>
#include <pipewire/node.h>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "failing-new.hpp"
#include "proxy-watch.hpp"
#include "source.hpp"

namespace
{

using texts = std::vector<std::string>;

/** The registry of a real graph. */
struct Registry : testing::Test {
	Registry()
	{
		hs_registry_add_listener(bed.registry);
		bed.settle();
	}

	/** Names of the nodes that were taken. */
	texts nodes() const
	{
		texts names;
		const hs_pw_source *node;
		spa_list_for_each (node, &bed.context->pw_sources, link)
			names.push_back(node->name);
		return names;
	}

	/** Announces a global that the graph does not have. */
	void announce(uint32_t id, const char *type, const spa_dict *props) const
	{
		spa_callbacks_call(&bed.registry->listener.cb, pw_registry_events, global, 0, id, PW_PERM_ALL,
		                   type, 3, props);
	}

	void withdraw(uint32_t id) const
	{
		spa_callbacks_call(&bed.registry->listener.cb, pw_registry_events, global_remove, 0, id);
	}

	static hs_properties_ptr node_props(const char *name, const char *media_class)
	{
		return hs_properties_ptr(
		        pw_properties_new("node.name", name, "media.class", media_class, nullptr));
	}

	hs_daemon_bed bed;
};

using RegistryDeathTest = Registry;

} // namespace

TEST_F(RegistryDeathTest, NullProxyAborts)
{
	EXPECT_DEATH(hs_registry_new(nullptr),
	             "'registry' failed at .*registry.cpp:[0-9]+ hs_registry_new\\(\\)");
}

TEST_F(RegistryDeathTest, NoMemoryForTheMetadataAborts)
{
	const auto make = [this] {
		hs_fail_call("new", 2, ENOMEM);
		hs_registry_new(bed.registry->registry);
	};
	EXPECT_DEATH(make(), "'metadata' failed at .*metadata.cpp:[0-9]+ hs_metadata_new\\(\\)");
}

TEST_F(Registry, BeginsUnbound)
{
	ASSERT_NE(bed.registry->metadata, nullptr);
	EXPECT_EQ(bed.registry->metadata->proxy, nullptr);
	EXPECT_EQ(bed.registry->metadata->connections->dict.n_items, 0u);
}

TEST_F(Registry, TakesAudioSourcesAndSinksOnly)
{
	bed.add_node("source", "Audio/Source");
	bed.add_node("sink", "Audio/Sink");
	bed.add_node("virtual", "Audio/Source/Virtual");
	bed.add_node("duplex", "Audio/Duplex");
	bed.add_node("stream", "Stream/Input/Audio");
	bed.add_node("video", "Video/Source");
	bed.add_node("none", nullptr);
	EXPECT_EQ(nodes(), (texts{"source", "sink"}));
}

TEST_F(Registry, LooksForTheFirstAudioClassOfANode)
{
	const spa_dict_item items[] = {{"node.name", "x"},
				       {"media.class", "Video/Source"},
				       {"media.class", "Audio/Sink"},
				       {"media.class", "Audio/Source"}};
	const spa_dict props = SPA_DICT_INIT_ARRAY(items);
	const hs_log_capture capture;
	announce(900, PW_TYPE_INTERFACE_Node, &props);
	EXPECT_EQ(nodes(), texts{"x"});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "\t\tmedia.class: \"Audio/Sink\""), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "media.class: "), 1u) << capture.text();
}

TEST_F(Registry, TellsOfTheNodesThatItTakes)
{
	const hs_log_capture capture;
	pw_impl_node *node = bed.add_node("source", "Audio/Source");
	bed.add_node("video", "Video/Source");
	const std::string added =
	        "\n\nObject added - object: id:" + std::to_string(hs_daemon_bed::id_of(node)) +
	        " type:PipeWire:Interface:Node/3";
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "\t\tmedia.class: \"Audio/Source\""), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, added), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Object added"), 1u) << capture.text();
}

TEST_F(Registry, TellsTheClassAndThenTheObject)
{
	const spa_dict_item items[] = {{"media.class", "Audio/Source"}, {"node.name", "x"}};
	const spa_dict props = SPA_DICT_INIT_ARRAY(items);
	const hs_log_capture capture;
	announce(4294967295, PW_TYPE_INTERFACE_Node, &props);
	ASSERT_EQ(capture.lines().size(), 2u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, "\t\tmedia.class: \"Audio/Source\"");
	EXPECT_EQ(capture.lines()[1].text, "\n\nObject added - object: id:4294967295 type:PipeWire:Interface:Node/3");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG), 2u) << capture.text();
}

TEST_F(Registry, HandsTheNodesIdOver)
{
	pw_impl_node *node = bed.add_node("source", "Audio/Source");
	const hs_pw_source *record = spa_list_first(&bed.context->pw_sources, hs_pw_source, link);
	EXPECT_EQ(record->id, hs_daemon_bed::id_of(node));
	EXPECT_EQ(record->media_class, "Audio/Source");
}

TEST_F(Registry, NodeOfTheGraphGetsItsSourceAndLosesIt)
{
	hs_plugin *plugin = bed.add_plugin("motion");
	pw_impl_node *node = bed.add_node("AudioDevice0Input0.Unprocessed", "Audio/Source");
	ASSERT_FALSE(spa_list_is_empty(&plugin->sources));
	EXPECT_EQ(spa_list_first(&plugin->sources, hs_source, link)->name, "AudioDevice0Input0.Unprocessed");
	const hs_log_capture capture;
	pw_impl_node_destroy(node);
	bed.settle();
	EXPECT_TRUE(spa_list_is_empty(&plugin->sources));
	EXPECT_TRUE(nodes().empty());
	const size_t destroyed_at = capture.text().find("destroy pw-source AudioDevice0Input0.Unprocessed");
	ASSERT_NE(destroyed_at, std::string::npos) << capture.text();
	EXPECT_LT(capture.text().find("Object removed - object: id:"), destroyed_at) << capture.text();
}

TEST_F(Registry, IgnoresOtherAndUnknownTypes)
{
	const hs_properties_ptr props = node_props("x", "Audio/Source");
	const hs_log_capture capture;
	announce(900, nullptr, &props->dict);
	announce(901, PW_TYPE_INTERFACE_Port, &props->dict);
	announce(902, "PipeWire:Interface:NodeX", &props->dict);
	announce(903, PW_TYPE_INTERFACE_Node, nullptr);
	announce(904, PW_TYPE_INTERFACE_Metadata, nullptr);
	EXPECT_TRUE(nodes().empty());
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(Registry, TellsOfEveryRemoval)
{
	const hs_log_capture capture;
	withdraw(4294967295);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Object removed - object: id:4294967295"), 1u)
	        << capture.text();
}

TEST_F(Registry, BindsTheVirtualNodesOnly)
{
	pw_impl_metadata *other = bed.add_metadata("other");
	EXPECT_EQ(bed.registry->metadata->proxy, nullptr);
	pw_impl_metadata *wanted = bed.add_metadata("virtual-nodes");
	EXPECT_NE(bed.registry->metadata->proxy, nullptr);
	bed.remove_metadata(wanted);
	bed.remove_metadata(other);
}

TEST_F(Registry, BindsOnlyOneAtATime)
{
	pw_impl_metadata *first = bed.add_metadata("virtual-nodes");
	const pw_metadata *bound = bed.registry->metadata->proxy;
	const uint32_t id = bed.registry->metadata->id;
	pw_impl_metadata *second = bed.add_metadata("virtual-nodes");
	EXPECT_EQ(bed.registry->metadata->proxy, bound);
	EXPECT_EQ(bed.registry->metadata->id, id);
	bed.remove_metadata(second);
	EXPECT_EQ(bed.registry->metadata->proxy, bound);
	bed.remove_metadata(first);
	EXPECT_EQ(bed.registry->metadata->proxy, nullptr);
}

TEST_F(Registry, RemovalUnbindsButKeepsTheConnections)
{
	pw_impl_metadata *metadata = bed.add_metadata("virtual-nodes");
	pw_properties_set(bed.registry->metadata->connections, "AudioDevice0Input0", "{ }");
	withdraw(bed.registry->metadata->id + 1);
	EXPECT_NE(bed.registry->metadata->proxy, nullptr);
	bed.remove_metadata(metadata);
	EXPECT_EQ(bed.registry->metadata->proxy, nullptr);
	EXPECT_STREQ(pw_properties_get(bed.registry->metadata->connections, "AudioDevice0Input0"), "{ }");
}

TEST_F(Registry, BindsAgainAfterARemoval)
{
	bed.remove_metadata(bed.add_metadata("virtual-nodes"));
	pw_impl_metadata *again = bed.add_metadata("virtual-nodes");
	EXPECT_NE(bed.registry->metadata->proxy, nullptr);
	pw_impl_metadata_set_property(again, 0, "virtual_node_connection.AudioDevice0Input0",
	                              "Spa:String:JSON", "{ a = 1 }");
	bed.settle();
	EXPECT_STREQ(pw_properties_get(bed.registry->metadata->connections, "AudioDevice0Input0"),
	             "{ a = 1 }");
	bed.remove_metadata(again);
}

TEST_F(Registry, RemovalOfTheMetadatasIdReachesTheNodesToo)
{
	pw_impl_metadata *metadata = bed.add_metadata("virtual-nodes");
	const hs_properties_ptr props = node_props("x", "Audio/Source");
	announce(bed.registry->metadata->id, PW_TYPE_INTERFACE_Node, &props->dict);
	ASSERT_EQ(nodes(), texts{"x"});
	withdraw(bed.registry->metadata->id);
	EXPECT_EQ(bed.registry->metadata->proxy, nullptr);
	EXPECT_TRUE(nodes().empty());
	bed.remove_metadata(metadata);
}

TEST_F(Registry, DestroyingClearsTheCallersPointer)
{
	hs_registry *registry = hs_registry_new(pw_core_get_registry(bed.core, PW_VERSION_REGISTRY, 0));
	hs_registry_destroy(&registry);
	EXPECT_EQ(registry, nullptr);
	hs_registry_destroy(&registry);
	EXPECT_EQ(registry, nullptr);
}

TEST_F(Registry, DestroyedOneHearsNothingMore)
{
	const hs_proxy_watch proxy{bed.registry->registry};
	hs_registry_destroy(&bed.registry);
	EXPECT_TRUE(proxy.is_destroyed());
	bed.context->registry = nullptr;
	bed.add_node("source", "Audio/Source");
	EXPECT_TRUE(nodes().empty());
}

TEST_F(Registry, MayBeDestroyedWhileTheMetadataIsBound)
{
	pw_impl_metadata *metadata = bed.add_metadata("virtual-nodes");
	ASSERT_NE(bed.registry->metadata->proxy, nullptr);
	hs_registry_destroy(&bed.registry);
	EXPECT_EQ(bed.registry, nullptr);
	bed.remove_metadata(metadata);
}
