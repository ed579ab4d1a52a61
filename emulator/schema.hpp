// The tables of the emulator's store and their creation.
#pragma once

#include "database.hpp"

namespace jovemu {

/// @brief Creates the tables on a new store; leaves an existing one as it is.
void createSchema(Connection& conn);

}  // namespace jovemu
