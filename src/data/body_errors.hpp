#pragma once
// The refusals every exchange of an object's body shares: 404 "OBJECT_BODY_NOT_FOUND" for an
// object without a body, besides the object's own.

#include "core/exchange.hpp"

namespace jov::detail {

inline constexpr ErrorRule kBodyErrors[] = {
    onCode("OBJECT_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("OBJECT_BODY_NOT_FOUND", JovError::codeObjectBodyNotExistInCloud()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
};

}  // namespace jov::detail
