#pragma once
/// @file
/// @brief JovReceivedMessage: what a received push payload says about where it came from, and
/// the entities it concerns, made without any exchange.
///
/// @code
/// auto message = jov::JovReceivedMessage::messageFromAPNS(payload);
/// if (auto object = message.eventSourceObject()) object->refreshSynchronous();
/// @endcode

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace jov {

class JovBucket;
class JovGroup;
class JovObject;
class JovThing;
class JovTopic;
class JovUser;

/// @brief The scope of the bucket or topic a message came from ("st" of the payload).
enum JovMessageScope : int {
  JovMessageScopeNone = -1,        ///< the payload has no "st"
  JovMessageScopeApp = 0,          ///< "APP"
  JovMessageScopeAppAndGroup = 1,  ///< "APP_AND_GROUP"
  JovMessageScopeAppAndUser = 2,   ///< "APP_AND_USER"
  JovMessageScopeAppAndThing = 3,  ///< "APP_AND_THING"
};

/// @brief The fields of a payload, each read from one short key.
enum JovMessageField : int {
  JovMessageFieldAppID = 0,          ///< "a"
  JovMessageFieldSender = 1,         ///< "s": a user ID, or a thing ID starting with "th"
  JovMessageFieldType = 2,           ///< "t"
  JovMessageFieldWhen = 3,           ///< "w"
  JovMessageFieldOrigin = 4,         ///< "o"
  JovMessageFieldTopic = 5,          ///< "to": the topic that carried the message
  JovMessageFieldScopeAppID = 6,     ///< "sa"
  JovMessageFieldScopeUserID = 7,    ///< "su": the user of a user scope
  JovMessageFieldScopeGroupID = 8,   ///< "sg": the group of a group scope
  JovMessageFieldScopeType = 9,      ///< "st": the scope (JovMessageScope)
  JovMessageFieldBucketID = 10,      ///< "bi": the bucket that caused the message
  JovMessageFieldBucketType = 11,    ///< "bt": "rw", "crypto" or "sync"
  JovMessageFieldObjectID = 12,      ///< "oi": the object concerned
  JovMessageFieldObjectModifiedAt = 13,  ///< "om"
  JovMessageFieldScopeThingID = 14,  ///< "sth": the thing of a thing scope
};

/// @brief A received push payload and what it tells. A plain value, safe to copy between
/// threads.
class JovReceivedMessage {
 public:
  /// @brief Receives the title and the alert body of showMessageAlertWithTitle.
  using AlertHandler = std::function<void(const std::string& title, const std::string& body)>;

  /// @brief Wraps a payload (any JSON; one that is not an object tells nothing).
  static JovReceivedMessage messageFromAPNS(nlohmann::json payload);
  /// @brief The same as messageFromAPNS, for payloads of any channel (GCM, MQTT).
  static JovReceivedMessage messageFromPayload(nlohmann::json payload) {
    return messageFromAPNS(std::move(payload));
  }

  /// @brief The payload as received.
  const nlohmann::json& rawMessage() const { return raw_; }
  /// @brief JovMessageScopeNone without "st"; else the scope its text names, and
  /// JovMessageScopeApp for a text that names none.
  int messageScope() const;
  /// @brief The value of a field (0 to 14); nothing for an absent key or another index.
  std::optional<nlohmann::json> getValueOfJovMessageField(int field) const;

  /// @brief The sending user ("s" not starting with "th"), or nullptr.
  std::shared_ptr<JovUser> senderUser() const;
  /// @brief The sending thing ("s" starting with "th"), or nullptr.
  std::shared_ptr<JovThing> senderThing() const;
  /// @brief The user of the scope ("su"), or nullptr.
  std::shared_ptr<JovUser> eventSourceUser() const;
  /// @brief The group of the scope ("sg"), or nullptr.
  std::shared_ptr<JovGroup> eventSourceGroup() const;
  /// @brief The thing of the scope ("sth"), or nullptr.
  std::shared_ptr<JovThing> eventSourceThing() const;
  /// @brief The bucket "bi" names, in the scope's owner: a bucket for the type "rw", an
  /// encrypted one for "crypto" (either case); nullptr for "sync", another or no type, no
  /// owner, or a name that is no bucket name.
  std::shared_ptr<JovBucket> eventSourceBucket() const;
  /// @brief The object "oi" names in eventSourceBucket, or nullptr (no bucket, no or an invalid
  /// ID).
  std::shared_ptr<JovObject> eventSourceObject() const;
  /// @brief The topic "to" names, in the application or the scope's owner, or nullptr.
  std::shared_ptr<JovTopic> eventSourceTopic() const;

  /// @brief Whether the payload names a bucket ("bi").
  bool containsJovBucket() const { return has("bi"); }
  /// @brief Whether the payload names an object ("oi").
  bool containsJovObject() const { return has("oi"); }
  /// @brief Whether the payload names a topic ("to").
  bool containsJovTopic() const { return has("to"); }

  /// @brief The alert of the payload's "aps": its text, or the "body" of an alert dictionary;
  /// the empty string otherwise.
  std::string getAlertBody() const;
  /// @brief Hands the title ("APNS Alert" when none is given) and the alert body to the
  /// application's alert handler (by default the logger, at info level).
  void showMessageAlertWithTitle(const std::optional<std::string>& title = {}) const;
  /// @brief Installs the alert handler; an empty function restores the logger. Thread-safe.
  static void setAlertHandler(AlertHandler handler);

 private:
  explicit JovReceivedMessage(nlohmann::json payload);
  bool has(const char* key) const;
  std::optional<std::string> text(const char* key) const;
  // The scope's owner: the application (nothing set), a group, a user or a thing; false when
  // there is none.
  struct Owner {
    std::shared_ptr<JovUser> user;
    std::shared_ptr<JovGroup> group;
    std::shared_ptr<JovThing> thing;
  };
  bool scopeOwner(Owner& owner) const;

  nlohmann::json raw_;
  int scope_ = JovMessageScopeNone;
};

}  // namespace jov
