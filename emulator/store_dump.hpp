// The whole store as readable JSON, one file per table, for --export and --import; and the
// removal of one application's data, for the reset route.
#pragma once

#include <filesystem>
#include <string>

#include "database.hpp"

namespace jovemu {

/// @brief Writes DIR/TABLE.json for every table: an array of rows, each an object from column
/// name to value (a blob as {"base64": "..."}). Each file is replaced atomically.
void exportStore(Database& db, const std::filesystem::path& directory);

/// @brief Loads the files exportStore wrote into a store that holds no row yet, in one
/// transaction: on any problem (a store that is not empty, an unknown table or column, a file
/// that is not an array of objects) nothing is imported and std::runtime_error says why.
void importStore(Database& db, const std::filesystem::path& directory);

/// @brief Deletes every row that belongs to the application, in every table with an "app_id"
/// column, except the application's own registration.
void clearApplicationData(Connection& conn, const std::string& appID);

}  // namespace jovemu
