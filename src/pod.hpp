/*
 * Typed values: as PODs towards the plug-in, as text inside the daemon.
 *
 * PODs come from plug-ins and are never trusted: whatever does not have the form of a description gives
 * null and a log line.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "owned.hpp"

struct spa_pod;

/** A type that settings and events can have. */
struct hs_schema_type {
	const char *name;
	/** SPA type id. */
	uint32_t id;
	/** D-Bus signature; that of arrays and structures is told by their complex type. */
	const char *signature;
};

/** All types, ended by a row with a null name. */
extern const hs_schema_type hs_schema_types[];

/** The row of that name; null where there is none or the name is null. */
const hs_schema_type *hs_schema_type_by_name(const char *name);
/** The row of that SPA type id, or null. */
const hs_schema_type *hs_schema_type_by_id(uint32_t id);
/** The row of that D-Bus signature, or null. */
const hs_schema_type *hs_schema_type_by_signature(const char *signature);

/** Where a plug-in builds one POD. */
struct hs_pod_buffer {
	static constexpr size_t size = 4096;
	alignas(8) uint8_t data[size];
};

/** The description of a setting or event, with its present value as text. */
struct hs_pod {
	/** Of a scalar: "true" or "false", the number in decimal, the string. */
	char value[512];
	/** Of an array: its elements as a JSON array. Of a structure: its members as a JSON object. */
	char json[2048];
	/** Of an array or structure: its D-Bus signature, or "N/A". */
	char signature[256];
	std::optional<std::string> title;
	std::optional<std::string> description;
	/** Name of an hs_schema_type. */
	std::optional<std::string> type;
	/** Of an array: SPA child size and type, number of elements, and the elements in the parsed POD. */
	uint32_t element_size;
	uint32_t element_type;
	uint32_t n_elements;
	const void *elements;
	/** Of a structure: its POD inside the parsed one. */
	const spa_pod *members;
};

/** What hs_pod_parse would tell of a scalar, without a record made for it. */
struct hs_pod_scalar {
	/** In the POD. */
	const char *title;
	const hs_schema_type *type;
	/** In the POD, or in `digits`. */
	const char *value;
	/** Room for any number in decimal: 309 digits before the point, 6 behind it, sign and terminator. */
	char digits[320];
};

/** False for an array or structure, for what is no description, and where the parser would mend or cut a text. */
bool hs_pod_read_scalar(const spa_pod *pod, hs_pod_scalar *scalar);

void hs_pod_free(hs_pod *pod);

using hs_pod_ptr = std::unique_ptr<hs_pod, hs_release<hs_pod_free>>;

/** Makes a record from texts, any of which may be null. */
hs_pod_ptr hs_pod_new(const char *title, const char *description, const char *type, const char *value);

/** Reads a description POD; null where `pod` is null or has another form. */
hs_pod_ptr hs_pod_parse(const spa_pod *pod);

/** The value text: `json` for an array or structure, else `value`. */
const char *hs_pod_value_text(const hs_pod &pod);

/**
 * Builds the Struct of `name` and a value that a plug-in's set_settings takes. A null `type` is inferred
 * from the text; `complex_type` is the signature of an array. A text that does not fit the type is warned
 * of and leaves the name alone in the Struct; null only where the POD outgrows an hs_pod_buffer.
 */
hs_malloc_ptr<spa_pod> hs_pod_build(const char *name, const char *value, const char *type, const char *complex_type);

/** Whether `value` is a text that an event or setting of this scalar type may have. */
bool hs_pod_value_is_valid(const hs_schema_type &type, const char *value);
