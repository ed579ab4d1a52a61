// The exchanges of an object's body: upload from memory or a file, download to a file,
// publication with or without an expiry, and deletion.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "core/exchange.hpp"
#include "data/body_errors.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::kBodyErrors;
using detail::onCode;
using detail::send;

// A publication until a date the service finds past is refused as invalid input.
constexpr detail::ErrorRule kPublishAtErrors[] = {
    onCode("OBJECT_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("OBJECT_BODY_NOT_FOUND", JovError::codeObjectBodyNotExistInCloud()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("INVALID_INPUT_DATA", JovError::codeDateNotFuture()),
};

constexpr const char* kPublication = "application/vnd.jov.ObjectBodyPublicationRequest+json";

constexpr Exchange kPutBody{JovMethodPut, "{+}/objects/{}/body", {.errors = kBodyErrors}};
constexpr Exchange kGetBody{JovMethodGet, "{+}/objects/{}/body", {.errors = kBodyErrors}};
constexpr Exchange kDeleteBody{JovMethodDelete, "{+}/objects/{}/body", {.errors = kBodyErrors}};
constexpr Exchange kPublish{JovMethodPost,
                            "{+}/objects/{}/body/publish",
                            {.contentType = kPublication, .errors = kBodyErrors}};
constexpr Exchange kPublishAt{JovMethodPost,
                              "{+}/objects/{}/body/publish",
                              {.contentType = kPublication, .errors = kPublishAtErrors}};

// Media types of the extensions applications upload most; the system's table covers the rest.
constexpr std::array<std::pair<std::string_view, std::string_view>, 40> kMediaTypes{{
    {"7z", "application/x-7z-compressed"},
    {"aac", "audio/aac"},
    {"avi", "video/x-msvideo"},
    {"bin", "application/octet-stream"},
    {"bmp", "image/bmp"},
    {"css", "text/css"},
    {"csv", "text/csv"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"gif", "image/gif"},
    {"gz", "application/gzip"},
    {"heic", "image/heic"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"ico", "image/vnd.microsoft.icon"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript"},
    {"json", "application/json"},
    {"m4a", "audio/mp4"},
    {"md", "text/markdown"},
    {"mov", "video/quicktime"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"ogg", "audio/ogg"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"svg", "image/svg+xml"},
    {"tar", "application/x-tar"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"txt", "text/plain"},
    {"wav", "audio/wav"},
    {"webm", "video/webm"},
    {"webp", "image/webp"},
    {"xls", "application/vnd.ms-excel"},
    {"xml", "application/xml"},
    {"yaml", "application/yaml"},
    {"zip", "application/zip"},
}};

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The type /etc/mime.types gives an extension, when the system has that table.
std::optional<std::string> systemMediaType(const std::string& extension) {
  static const std::map<std::string, std::string> table = [] {
    std::map<std::string, std::string> types;
    FILE* f = std::fopen("/etc/mime.types", "r");
    if (!f) return types;
    char line[512];
    while (std::fgets(line, sizeof line, f)) {
      if (line[0] == '#') continue;
      char* save = nullptr;
      char* type = strtok_r(line, " \t\r\n", &save);
      if (!type) continue;
      while (char* ext = strtok_r(nullptr, " \t\r\n", &save)) types.emplace(ext, type);
    }
    std::fclose(f);
    return types;
  }();
  if (auto it = table.find(extension); it != table.end()) return it->second;
  return std::nullopt;
}

bool readableFile(const std::filesystem::path& file) {
  std::error_code ec;
  return std::filesystem::is_regular_file(file, ec) && ::access(file.c_str(), R_OK) == 0;
}

// The destination's folder exists and takes new files; the failure is logged as the library
// always logged a file it could not create.
bool writableDestination(const std::filesystem::path& file) {
  std::filesystem::path folder = file.parent_path();
  if (folder.empty()) folder = ".";
  std::error_code ec;
  int error = 0;
  if (!std::filesystem::is_directory(folder, ec)) {
    error = ENOENT;
  } else if (::access(folder.c_str(), W_OK) != 0) {
    error = errno;
  } else if (std::filesystem::is_directory(file, ec)) {
    error = EISDIR;
  }
  if (error == 0) return true;
  JOV_LOG(JovLogError,
          "Failed to create new file : " + std::to_string(error) + " - " + std::strerror(error));
  return false;
}

}  // namespace

std::string JovObject::decideBodyContentType(const std::string& contentType,
                                             const std::filesystem::path& file) {
  if (!contentType.empty()) return contentType;
  std::string extension = file.extension().string();
  if (extension.size() > 1) {
    extension = lowerCase(extension.substr(1));
    for (const auto& [ext, type] : kMediaTypes)
      if (ext == extension) return std::string(type);
    if (auto type = systemMediaType(extension)) return *type;
  }
  return "application/octet-stream";
}

detail::Routine<void> JovObject::uploadRoutine(std::optional<std::string> data,
                                               std::filesystem::path file, std::string contentType,
                                               JovProgressBlock progress) {
  // The file is examined, and its type may be looked up in the system's table.
  if (!data) co_await detail::mayBlock();
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  auto id = uuid();
  JOV_CO_REQUIRE(bucketPath && id, JovError::codeInvalidObjects());
  JOV_CO_REQUIRE(data || readableFile(file), JovError::codeNotReadableURL());
  std::error_code ec;
  const std::int64_t size = data ? static_cast<std::int64_t>(data->size())
                                 : static_cast<std::int64_t>(std::filesystem::file_size(file, ec));
  contentType = decideBodyContentType(contentType, data ? std::filesystem::path() : file);
  // The builders return the arguments themselves: set in place, never assigned to themselves.
  auto sendArgs = data ? args(*bucketPath, *id).contentType(contentType).raw(std::move(*data))
                       : args(*bucketPath, *id).contentType(contentType).uploadFile(file);
  if (progress) {
    // Reported when the bytes sent change, not when the answer's bytes do.
    std::move(sendArgs).progress([progress, size, last = std::make_shared<std::int64_t>(-1)](
                                     std::int64_t sent, std::int64_t, std::int64_t) {
      if (std::exchange(*last, sent) != sent) progress(sent, size);
    });
  }
  auto answer = co_await send(kPutBody, std::move(sendArgs));
  if (!answer) co_return answer.error();
  auto modified = jsonInt64(answer->json, "modifiedAt");
  std::lock_guard lock(mutex_);
  if (modified) modified_ = detail::fromMillis(static_cast<double>(*modified));
  bodyContentType_ = contentType;
  co_return {};
}

detail::Routine<void> JovObject::downloadRoutine(std::filesystem::path file,
                                                 JovProgressBlock progress) {
  co_await detail::mayBlock();  // the destination's folder is examined
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  auto id = uuid();
  JOV_CO_REQUIRE(bucketPath && id, JovError::codeInvalidObjects());
  JOV_CO_REQUIRE(writableDestination(file), JovError::codeNotWritableURL());
  auto sendArgs = args(*bucketPath, *id).downloadTo(file);
  if (progress) {
    std::move(sendArgs).progress([progress, last = std::make_shared<std::int64_t>(-1)](
                                     std::int64_t, std::int64_t received, std::int64_t expected) {
      if (std::exchange(*last, received) != received) progress(received, expected);
    });
  }
  auto answer = co_await send(kGetBody, std::move(sendArgs));
  if (!answer) co_return answer.error();
  auto type = jovHeaderValue(answer->headers, "Content-Type");
  std::lock_guard lock(mutex_);
  if (type) bodyContentType_ = *type;
  co_return {};
}

detail::Routine<std::string> JovObject::publishRoutine(std::optional<nlohmann::json> expiry,
                                                       bool withDate) {
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  auto id = uuid();
  JOV_CO_REQUIRE(bucketPath && id, JovError::codeInvalidObjects());
  auto sendArgs = args(*bucketPath, *id);
  if (expiry) std::move(sendArgs).json(std::move(*expiry));
  auto answer = co_await send(withDate ? kPublishAt : kPublish, std::move(sendArgs));
  if (!answer) co_return answer.error();
  auto url = jsonString(answer->json, "url");
  if (!url || url->empty()) co_return detail::unreadableAnswer();
  co_return *url;
}

detail::Routine<std::string> JovObject::publishAtRoutine(TimePoint expiresAt) {
  JOV_CO_REQUIRE(uuid() && bucket_ && bucket_->bucketPath(), JovError::codeInvalidObjects());
  JOV_CO_REQUIRE(expiresAt > std::chrono::system_clock::now(), JovError::codeDateNotFuture());
  nlohmann::json expiry = {{"expiresAt", detail::toMillis(expiresAt)}};
  co_return co_await publishRoutine(std::move(expiry), true);
}

detail::Routine<std::string> JovObject::publishInRoutine(std::chrono::seconds expiresIn) {
  JOV_CO_REQUIRE(uuid() && bucket_ && bucket_->bucketPath(), JovError::codeInvalidObjects());
  JOV_CO_REQUIRE(expiresIn.count() > 0, JovError::codeIntervalZero());
  nlohmann::json expiry = {{"expiresIn", expiresIn.count()}};
  co_return co_await publishRoutine(std::move(expiry));
}

detail::Routine<void> JovObject::deleteBodyRoutine() {
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  auto id = uuid();
  JOV_CO_REQUIRE(bucketPath && id, JovError::codeInvalidObjects());
  auto answer = co_await send(kDeleteBody, args(*bucketPath, *id));
  if (!answer) co_return answer.error();
  co_return {};
}

}  // namespace jov
