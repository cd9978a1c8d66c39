-- Session items for nodes and links, and the policy that links them: no device, no state, no volumes.
components = {
	["metadata"] = { "libwireplumber-module-metadata", type = "module" },
	["si-node"] = { "libwireplumber-module-si-node", type = "module" },
	["si-audio-adapter"] = { "libwireplumber-module-si-audio-adapter", type = "module" },
	["si-audio-endpoint"] = { "libwireplumber-module-si-audio-endpoint", type = "module" },
	["si-standard-link"] = { "libwireplumber-module-si-standard-link", type = "module" },
	["default-nodes-api"] = { "libwireplumber-module-default-nodes-api", type = "module" },
	["mixer-api"] = { "libwireplumber-module-mixer-api", type = "module" },
	["create-item"] = { "create-item.lua", type = "script/lua", args = {} },
	["policy-node"] = { "policy-node.lua", type = "script/lua",
		args = { move = true, follow = true, ["audio.no-dsp"] = false, ["duck.level"] = 0.3 } },
}
