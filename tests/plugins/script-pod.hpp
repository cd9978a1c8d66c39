/*
 * Descriptions of settings and events as PODs, sound ones and nonsense.
 *
 * Kinds of the item's "pod" member:
 *
 *   normal           a PropInfo object with name, description and type
 *   null             no POD at all
 *   not-object       an Int
 *   wrong-object     an object of another type that has the same properties
 *   no-name          without the name
 *   no-description   without the description
 *   no-type          without the type
 *   wrong-name       whose name is an Int
 *   wrong-type       whose type is a Rectangle
 *   choice           whose type is a Choice of an Int
 *   overflow         larger than the builder, built into it all the same
 *   big              larger than the builder, in the plug-in's own memory
 *   huge             whose value is larger than 0xfffff bytes, in the plug-in's own memory
 *   struct-names     whose value is a Struct with numbers for names
 *   struct-odd       whose value is a Struct that ends after a name
 *   struct-nested    whose value is a Struct that holds a Struct
 *   struct-empty     whose value is a Struct with nothing in it
 *   array-nested     whose value is an Array of Rectangles
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "script.hpp"

struct spa_pod;
struct spa_pod_builder;

/** Adds one scalar of the named type; an unknown type adds a None. */
void add_scalar(spa_pod_builder *builder, const std::string &type, const Json &value);

/**
 * The description of `item`, built into `builder` or, for the kinds that say so, into `own`, which must
 * outlive the result. Null where there is none or the builder overflows.
 */
spa_pod *build_description(const Json &item, spa_pod_builder *builder, std::vector<std::uint64_t> &own);

/** `pod` as JSON: [type, value], where the value of a Struct is the array of its children and that of a
 * type the plug-in does not know is the type's number; null for a null pod. */
std::string pod_to_json(const spa_pod *pod);
