// geometry/validate.h: the validators of what this folder makes; see core/validate.h.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "geometry/object.h"

namespace zp {

// How many primitives of a kind the Part holds; 0 for kinds that are none of its own.
std::size_t PrimitiveCount(const Part& part, std::uint16_t kind);
// Whether the Object has the primitive or Instance that is referred to.
bool Holds(const Object& object, const PrimitiveRef& reference);

// Of a Part that strands were read into while it was empty: every strand has its segments, each between two
// positions, in the order of the strands.
std::string ValidateStrands(const Part& part);
// Of a Part after PreparePart: no index leaves its array, vertices of primitives are finite, and no array of
// a value a vertex may have is of another length.
std::string ValidatePart(const Part& part);
// Of a Part after SetUpDensity: each primitive's cells follow those of the one before, on both sides.
std::string ValidateDensity(const Part& part);
// Of an Object after BuildEmissionLists: every record names a primitive or an Instance, with its share.
std::string ValidateEmission(const Object& object);

}  // namespace zp
