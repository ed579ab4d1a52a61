#pragma once
/// @file
/// @brief Everything an application includes: the whole public API of libjov.

#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/async.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/encoding.hpp"
#include "jov/error.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/query.hpp"
#include "jov/request.hpp"
#include "jov/result.hpp"
#include "jov/server_code.hpp"
#include "jov/social_account.hpp"
#include "jov/transport.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"
#include "jov/validation.hpp"
