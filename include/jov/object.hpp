#pragma once
/// @file
/// @brief JovObject: one JSON document stored in a bucket.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/query.hpp"
#include "jov/result.hpp"

namespace jov {

class JovACL;
class JovBucket;
class JovDownloader;
class JovUploader;
class JovUser;

/// @brief One JSON document of a bucket: the application's fields and the service's identity
/// (ID, creation and modification times, version, type).
///
/// Objects come from their bucket (createObject, createObjectWithType, createObjectWithID) or
/// from a URI; they are held by std::shared_ptr and safe to use from several threads. Fields set
/// or removed since the last load form the change set that a partial save sends. A failed
/// exchange changes nothing of the object.
///
/// @code
/// auto notes = alice->bucketWithName("notes");
/// auto note = notes->createObject();
/// note->setObject("buy milk", "text");
/// if (auto saved = note->saveSynchronous(); !saved) std::cerr << saved.error().describe();
/// @endcode
class JovObject : public std::enable_shared_from_this<JovObject> {
 public:
  /// @brief Objects are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovObject>;
  /// @brief Time points of the object's dates.
  using TimePoint = std::chrono::system_clock::time_point;
  /// @brief Blocks of object operations receive the object, then the error.
  using ObjectBlock = JovBlock<Ptr>;
  /// @brief Blocks of a publication receive the object, the public URL, then the error.
  using URLBlock = JovBlock<Ptr, std::string>;
  /// @brief A field's value: JSON, another object or a user (both sent as their URI).
  using Value = std::variant<nlohmann::json, Ptr, std::shared_ptr<JovUser>>;

  /// @brief Lets the bucket and the factories use std::make_shared; not usable outside.
  struct Key {
   private:
    friend class JovObject;
    friend class JovBucket;
    Key() = default;
  };
  /// @brief Made by the bucket or objectWithURI only.
  JovObject(Key, std::shared_ptr<JovBucket> bucket, std::optional<std::string> uuid,
            std::optional<std::string> type);
  JovObject(const JovObject&) = delete;
  JovObject& operator=(const JovObject&) = delete;

  /// @brief The object of "jovcloud://buckets/B/objects/ID" or
  /// "jovcloud://users|groups/ID/buckets/B/objects/ID" (a bucket "CRYPTO:B" is encrypted);
  /// nullptr, and "Failed to parse URI: ..." logged, for anything else. Nothing is fetched.
  static Ptr objectWithURI(const std::string& uri);
  /// @brief True for a type of a letter and 4 to 49 letters, digits, "-" or "_".
  static bool isValidObjectType(const std::string& type);

  /// @brief The service's ID; nothing before the first save (unless made with an ID).
  std::optional<std::string> uuid() const;
  /// @brief When the object was created on the service; set exactly when it exists there.
  std::optional<TimePoint> created() const;
  /// @brief When the object was last modified on the service.
  std::optional<TimePoint> modified() const;
  /// @brief True once the object was created on the service or loaded from it.
  bool isCreated() const { return created().has_value(); }
  /// @brief The bucket the object belongs to.
  const std::shared_ptr<JovBucket>& bucket() const { return bucket_; }
  /// @brief The object's type, when it has one.
  std::optional<std::string> objectType() const;
  /// @brief The version of the last save or refresh.
  std::optional<std::string> etag() const;
  /// @brief The media type of the object's body, when known.
  std::optional<std::string> bodyContentType() const;
  /// @brief A local identity, "jovid://" and a unique string.
  const std::string& internalID() const { return internalID_; }
  /// @brief "jovcloud:/" + the bucket path + "/objects/ID"; nothing without an ID.
  std::optional<std::string> objectURI() const;
  /// @brief The bucket path + "/objects/ID"; nothing without an ID or a bucket path.
  std::optional<std::string> objectPath() const;
  /// @brief The path of the object's access control list (objectPath + "/acl").
  std::optional<std::string> aclPath() const;
  /// @brief The object's access control list (the same one while it is held).
  std::shared_ptr<JovACL> objectACL();

  // ------------------------------------------------------------------ fields

  /// @brief Sets a field and adds its key to the change set. False, and nothing changed, for an
  /// empty key or one beginning with "_" (508 kept in lastError), or a value that cannot be
  /// written as JSON: null, a number that is not finite, a text that is not UTF-8 (502).
  bool setObject(const nlohmann::json& value, const std::string& key);
  /// @brief Sets an object as a field (written as its URI; saved first when it has none). False
  /// for the object itself (507) or a null pointer (502).
  bool setObject(const Ptr& value, const std::string& key);
  /// @brief Sets a user as a field (written as "jovcloud://users/ID").
  bool setObject(const std::shared_ptr<JovUser>& value, const std::string& key);
  /// @brief Stores a geo point as its JSON form.
  bool setGeoPoint(const JovGeoPoint& point, const std::string& key);
  /// @brief A field as JSON (objects and users as their URI; an unsaved object as null).
  std::optional<nlohmann::json> getObjectForKey(const std::string& key) const;
  /// @brief A field as it was set.
  std::optional<Value> getValueForKey(const std::string& key) const;
  /// @brief A field read as a geo point, when it holds one.
  std::optional<JovGeoPoint> getGeoPointForKey(const std::string& key) const;
  /// @brief Whether a field is set.
  bool hasObject(const std::string& key) const;
  /// @brief Removes a field; the key joins the change set, and a partial save sends it as null,
  /// which removes it from the stored document.
  void removeObjectForKey(const std::string& key);
  /// @brief Every field as JSON (objects and users as URIs).
  nlohmann::json dictionaryValue() const;
  /// @brief The keys set or removed since the last load.
  std::set<std::string> changedKeys() const;
  /// @brief The error of the last refused setObject.
  std::optional<JovError> lastError() const;

  /// @brief Reads a document of the service: "_id", "_created", "_modified", "_dataType",
  /// "_version", and every other key as a field; the change set is emptied. False, and nothing
  /// changed, for a non-object or a reserved key of the wrong type.
  bool loadFromJSON(const nlohmann::json& document);
  /// @brief A multi-line summary (also written to the log).
  std::string describe() const;

  // ------------------------------------------------------------------ exchanges

  /// @name save
  /// @{

  /// Creates the object (POST BUCKET/objects, every field) when it has no ID, else updates it:
  /// the changed fields merged (POST with "X-HTTP-Method-Override: PATCH"), or with allFields
  /// the document replaced (PUT BUCKET/objects/ID). Unless `forced`, the update carries the
  /// version: "If-Match" for an object loaded from the service; "If-None-Match: *" for one made
  /// with an ID and never loaded (a partial save then also needs a version). An object value
  /// without a URI is saved first. Content-Type "application/vnd.APPID.TYPE+json" for a typed
  /// object, else "application/json".
  /// Errors: 501 no bucket path; 516 no version to check; 512 the copy is older than the
  /// service's ("OBJECT_VERSION_IS_STALE"); 510 object not found; 515 the bucket's user or
  /// group does not exist; 202 unreadable answer; and the errors of every exchange.
  /// The block and delegate receive the object, then the error.
  Result<void> saveSynchronous(bool forced = true) {
    return detail::runSync(saveRoutine(forced, false));
  }
  Result<void> saveAllFieldsSynchronous(bool forced) {
    return detail::runSync(saveRoutine(forced, true));
  }
  void save(ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(true, false), std::move(block), cancel);
  }
  void save(bool forced, ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(forced, false), std::move(block), cancel);
  }
  void saveAllFields(bool forced, ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(forced, true), std::move(block), cancel);
  }
  void save(bool forced, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), saveRoutine(forced, false), std::move(callback), cancel);
  }
  void saveAllFields(bool forced, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), saveRoutine(forced, true), std::move(callback), cancel);
  }
  std::future<Result<void>> saveAsync(bool forced = true, JovCancellation cancel = {}) {
    return detail::runFuture(self(), saveRoutine(forced, false), cancel);
  }
  std::future<Result<void>> saveAllFieldsAsync(bool forced, JovCancellation cancel = {}) {
    return detail::runFuture(self(), saveRoutine(forced, true), cancel);
  }
  /// @}

  /// @name refresh
  /// @{

  /// Reads the object again (GET BUCKET/objects/ID): every local field is replaced, unsaved
  /// changes included, and the change set emptied. Errors: 501 no ID or bucket path; 510 object
  /// not found; 515 parent not found; 202 unreadable answer (the object is then unchanged).
  Result<void> refreshSynchronous() { return detail::runSync(refreshRoutine()); }
  void refresh(ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), refreshRoutine(), std::move(block), cancel);
  }
  void refresh(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), refreshRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> refreshAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), refreshRoutine(), cancel);
  }
  /// @}

  /// @name delete
  /// @{

  /// Deletes the object on the service (DELETE BUCKET/objects/ID). Errors as refresh.
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  void deleteWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  // ------------------------------------------------------------------ body

  /// @brief The media type a body upload sends: `contentType` when not empty; else, for a
  /// file, the type its extension names ("photo.jpg" → "image/jpeg"); else
  /// "application/octet-stream".
  static std::string decideBodyContentType(const std::string& contentType,
                                           const std::filesystem::path& file = {});

  /// @name uploadBody
  /// @{

  /// Uploads the object's body (PUT BUCKET/objects/ID/body) with the bytes given (WithData) or
  /// streamed from a file, never read whole into memory (WithURL). The media type is
  /// decideBodyContentType(contentType, file); it becomes bodyContentType(), and the answer's
  /// "modifiedAt" the object's modified time. `progress` receives the bytes sent and the size.
  /// `contentType` may be empty (decided as above); `progress` may be empty.
  /// Errors: 501 the object has no ID; 520 the file cannot be read (missing, a directory, no
  /// permission); 510 the object does not exist; 515 the bucket's user or group does not exist;
  /// and the errors of every exchange. A failed upload changes nothing of the object.
  Result<void> uploadBodySynchronousWithData(std::string data, const std::string& contentType,
                                             JovProgressBlock progress = {}) {
    return detail::runSync(uploadRoutine(std::move(data), {}, contentType, std::move(progress)));
  }
  Result<void> uploadBodySynchronousWithURL(const std::filesystem::path& file,
                                            const std::string& contentType,
                                            JovProgressBlock progress = {}) {
    return detail::runSync(uploadRoutine(std::nullopt, file, contentType, std::move(progress)));
  }
  void uploadBodyWithData(std::string data, const std::string& contentType, ObjectBlock block,
                          JovProgressBlock progress = {}, JovCancellation cancel = {}) {
    detail::runBlock(self(),
                     uploadRoutine(std::move(data), {}, contentType,
                                   detail::progressOnMainQueue(std::move(progress))),
                     std::move(block), cancel);
  }
  void uploadBodyWithURL(const std::filesystem::path& file, const std::string& contentType,
                         ObjectBlock block, JovProgressBlock progress = {},
                         JovCancellation cancel = {}) {
    detail::runBlock(self(),
                     uploadRoutine(std::nullopt, file, contentType,
                                   detail::progressOnMainQueue(std::move(progress))),
                     std::move(block), cancel);
  }
  void uploadBodyWithData(std::string data, const std::string& contentType, JovCallback callback,
                          JovProgressBlock progress = {}, JovCancellation cancel = {}) {
    detail::runCallback(self(),
                        uploadRoutine(std::move(data), {}, contentType,
                                      detail::progressOnMainQueue(std::move(progress))),
                        std::move(callback), cancel);
  }
  void uploadBodyWithURL(const std::filesystem::path& file, const std::string& contentType,
                         JovCallback callback, JovProgressBlock progress = {},
                         JovCancellation cancel = {}) {
    detail::runCallback(self(),
                        uploadRoutine(std::nullopt, file, contentType,
                                      detail::progressOnMainQueue(std::move(progress))),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> uploadBodyWithDataAsync(std::string data,
                                                    const std::string& contentType,
                                                    JovProgressBlock progress = {},
                                                    JovCancellation cancel = {}) {
    return detail::runFuture(self(),
                             uploadRoutine(std::move(data), {}, contentType,
                                           detail::progressOnMainQueue(std::move(progress))),
                             cancel);
  }
  std::future<Result<void>> uploadBodyWithURLAsync(const std::filesystem::path& file,
                                                   const std::string& contentType,
                                                   JovProgressBlock progress = {},
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(self(),
                             uploadRoutine(std::nullopt, file, contentType,
                                           detail::progressOnMainQueue(std::move(progress))),
                             cancel);
  }
  /// The old spelling of the block forms with progress; they call the forms above.
  [[deprecated("use uploadBodyWithData")]] void uploadBodyWithDataAndProgess(
      std::string data, const std::string& contentType, ObjectBlock block,
      JovProgressBlock progress) {
    uploadBodyWithData(std::move(data), contentType, std::move(block), std::move(progress));
  }
  [[deprecated("use uploadBodyWithURL")]] void uploadBodyWithURLAndProgess(
      const std::filesystem::path& file, const std::string& contentType, ObjectBlock block,
      JovProgressBlock progress) {
    uploadBodyWithURL(file, contentType, std::move(block), std::move(progress));
  }
  /// @}

  /// @name downloadBody
  /// @{

  /// Downloads the object's body (GET BUCKET/objects/ID/body) into a file, streamed as it
  /// arrives: the bytes go to a side file that takes the destination's name only once the whole
  /// body arrived, so a failed download leaves nothing at the destination (and an existing file
  /// there untouched). The answer's "Content-Type" becomes bodyContentType().
  /// The destination's folder must exist and be writable; `progress` receives the bytes
  /// arrived and the body's size when the service gave it.
  /// Errors: 501 the object has no ID; 519 the destination's folder is not writable (or the
  /// file cannot be written); 517 the object has no body; 510; 515; and the errors of every
  /// exchange.
  Result<void> downloadBodySynchronousWithURL(const std::filesystem::path& file,
                                              JovProgressBlock progress = {}) {
    return detail::runSync(downloadRoutine(file, std::move(progress)));
  }
  void downloadBodyWithURL(const std::filesystem::path& file, ObjectBlock block,
                           JovProgressBlock progress = {}, JovCancellation cancel = {}) {
    detail::runBlock(self(),
                     downloadRoutine(file, detail::progressOnMainQueue(std::move(progress))),
                     std::move(block), cancel);
  }
  void downloadBodyWithURL(const std::filesystem::path& file, JovCallback callback,
                           JovProgressBlock progress = {}, JovCancellation cancel = {}) {
    detail::runCallback(self(),
                        downloadRoutine(file, detail::progressOnMainQueue(std::move(progress))),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> downloadBodyWithURLAsync(const std::filesystem::path& file,
                                                     JovProgressBlock progress = {},
                                                     JovCancellation cancel = {}) {
    return detail::runFuture(
        self(), downloadRoutine(file, detail::progressOnMainQueue(std::move(progress))), cancel);
  }
  /// The old spelling of the block form with progress; it calls the form above.
  [[deprecated("use downloadBodyWithURL")]] void downloadBodyWithURLAndProgess(
      const std::filesystem::path& file, ObjectBlock block, JovProgressBlock progress) {
    downloadBodyWithURL(file, std::move(block), std::move(progress));
  }
  /// @}

  /// @name publishBody
  /// @{

  /// Publishes the body (POST BUCKET/objects/ID/body/publish, Content-Type
  /// "application/vnd.jov.ObjectBodyPublicationRequest+json") and gives its public URL, which
  /// anyone can read without the application's keys: for good, until a date ({"expiresAt":
  /// milliseconds}) or for an interval ({"expiresIn": seconds}).
  /// `expiresAt` must be in the future; `expiresIn` more than zero seconds.
  /// Errors: 501 the object has no ID; 521 the date is not in the future (checked before
  /// anything is sent, and when the service refuses it); 522 the interval is zero or negative;
  /// 517 the object has no body; 510; 515; 202 an answer without "url".
  Result<std::string> publishBodySynchronous() { return detail::runSync(publishRoutine({})); }
  Result<std::string> publishBodySynchronousExpiresAt(TimePoint expiresAt) {
    return detail::runSync(publishAtRoutine(expiresAt));
  }
  Result<std::string> publishBodySynchronousExpiresIn(std::chrono::seconds expiresIn) {
    return detail::runSync(publishInRoutine(expiresIn));
  }
  void publishBody(URLBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), publishRoutine({}), detail::leading(std::move(block), self()), cancel);
  }
  void publishBodyExpiresAt(TimePoint expiresAt, URLBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), publishAtRoutine(expiresAt), detail::leading(std::move(block), self()),
                     cancel);
  }
  void publishBodyExpiresIn(std::chrono::seconds expiresIn, URLBlock block,
                            JovCancellation cancel = {}) {
    detail::runBlock(self(), publishInRoutine(expiresIn), detail::leading(std::move(block), self()),
                     cancel);
  }
  void publishBody(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), publishRoutine({}), std::move(callback), cancel, self());
  }
  std::future<Result<std::string>> publishBodyAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), publishRoutine({}), cancel);
  }
  std::future<Result<std::string>> publishBodyExpiresAtAsync(TimePoint expiresAt,
                                                             JovCancellation cancel = {}) {
    return detail::runFuture(self(), publishAtRoutine(expiresAt), cancel);
  }
  std::future<Result<std::string>> publishBodyExpiresInAsync(std::chrono::seconds expiresIn,
                                                             JovCancellation cancel = {}) {
    return detail::runFuture(self(), publishInRoutine(expiresIn), cancel);
  }
  /// @}

  /// @name deleteBody
  /// @{

  /// Deletes the object's body (DELETE BUCKET/objects/ID/body); the object stays.
  /// Errors: 501 the object has no ID; 517 the object has no body; 510; 515; and the errors of
  /// every exchange.
  Result<void> deleteBodySynchronous() { return detail::runSync(deleteBodyRoutine()); }
  void deleteBody(ObjectBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteBodyRoutine(), std::move(block), cancel);
  }
  void deleteBody(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteBodyRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteBodyAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteBodyRoutine(), cancel);
  }
  /// @}

  /// @brief A resumable upload of a file as this object's body (see JovUploader); a transfer
  /// of the same file to the same object that was left unfinished, in this process or an
  /// earlier one, is continued.
  std::shared_ptr<JovUploader> uploader(const std::filesystem::path& file,
                                        const std::string& contentType = {});
  /// @brief A resumable download of this object's body into a file (see JovDownloader),
  /// continuing an unfinished one of the same object and file.
  std::shared_ptr<JovDownloader> downloader(const std::filesystem::path& file);

 private:
  friend class JovBucket;
  friend class JovUploader;
  friend class JovDownloader;
  Ptr self() { return shared_from_this(); }
  // The objects whose saves are under way in one chain of nested saves, outermost first.
  using SaveChain = std::vector<const JovObject*>;
  detail::Routine<void> saveRoutine(bool forced, bool allFields) {
    return saveInChain(forced, allFields, SaveChain());
  }
  detail::Routine<void> saveInChain(bool forced, bool allFields, SaveChain chain);
  detail::Routine<void> createRoutine(SaveChain chain);
  detail::Routine<void> updateRoutine(bool forced, bool allFields, SaveChain chain);
  detail::Routine<void> refreshRoutine();
  detail::Routine<void> deleteRoutine();
  // The body is `data` when given, else the file's content.
  detail::Routine<void> uploadRoutine(std::optional<std::string> data, std::filesystem::path file,
                                      std::string contentType, JovProgressBlock progress);
  detail::Routine<void> downloadRoutine(std::filesystem::path file, JovProgressBlock progress);
  detail::Routine<std::string> publishRoutine(std::optional<nlohmann::json> expiry,
                                              bool withDate = false);
  detail::Routine<std::string> publishAtRoutine(TimePoint expiresAt);
  detail::Routine<std::string> publishInRoutine(std::chrono::seconds expiresIn);
  detail::Routine<void> deleteBodyRoutine();
  // The fields a save sends; objects without a URI are saved first, unless they are being saved
  // further out in the chain (a cycle of new objects), and then go as null.
  detail::Routine<nlohmann::json> uploadBody(bool allFields, SaveChain chain);
  bool refuse(int code);
  bool store(const std::string& key, Value value);
  std::optional<std::string> pathLocked() const;

  const std::shared_ptr<JovBucket> bucket_;
  const std::string internalID_;
  mutable std::mutex mutex_;
  std::optional<std::string> uuid_, type_, etag_, bodyContentType_;
  std::optional<TimePoint> created_, modified_;
  std::map<std::string, Value> fields_;
  std::set<std::string> patchKeys_;
  std::optional<JovError> lastError_;
  std::weak_ptr<JovACL> acl_;
};

}  // namespace jov
