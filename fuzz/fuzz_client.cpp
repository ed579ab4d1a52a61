// The library's side: arbitrary answers of the service through JovRequest and the loaders of
// users, groups, objects, things and push installations, thing query pages, arbitrary URIs and
// received push payloads, with a transport that answers from the fuzz input instead of the
// network.
//
// Input: one byte choosing the operation, two bytes of HTTP status (taken modulo 600), one byte
// choosing an ETag, then the answer's body. Aborts when an operation succeeds on an answer the
// service never gives as a success, or when a failed one changed its entity.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/mqtt_installation.hpp"
#include "jov/object.hpp"
#include "jov/push_installation.hpp"
#include "jov/query.hpp"
#include "jov/received_message.hpp"
#include "jov/request.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"

namespace {

using namespace jov;

struct Scripted {
  int status = 200;
  std::string body;
  JovHeaders headers;
};
thread_local Scripted answer;

class Request final : public JovURLRequest {
 public:
  using JovURLRequest::JovURLRequest;
  void sendRequest() override {
    responseCode_ = answer.status;
    responseHeaders_ = answer.headers;
    responseData_ = answer.body;
    if (answer.status == 0) responseError_ = "connection reset";
  }
};

class Factory final : public JovURLRequestFactory {
 public:
  std::unique_ptr<JovURLRequest> requestWithURL(const std::string& url) override {
    return std::make_unique<Request>(url);
  }
};

void check(bool condition) {
  if (!condition) std::abort();
}

bool success(int status) { return status >= 200 && status <= 299; }

void setUp() {
  JovKeyChainWrapper::useMemoryStore();
  Jov::beginWithID("app", "key", std::string("http://fuzz.invalid/api"));
  Jov::setRequestFactory(std::make_shared<Factory>());
  Jov::setMaxAnswerSize(1 << 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = (setUp(), true);
  (void)ready;
  if (size < 4) return 0;
  const int op = data[0] % 12;
  answer.status = ((data[1] << 8) | data[2]) % 600;
  answer.headers.clear();
  if (data[3] % 2) answer.headers.emplace_back("ETag", "\"v" + std::to_string(data[3]) + "\"");
  answer.body.assign(reinterpret_cast<const char*>(data + 4), size - 4);
  const auto json = nlohmann::json::parse(answer.body, nullptr, false);

  switch (op) {
    case 0: {  // the error mapping of an arbitrary answer
      JovRequest r("/x");
      auto res = r.makeSynchronousRequest();
      check(res.ok() == (success(answer.status) && !res.error));
      if (!res.ok()) check(!res.error->describe().empty());
      break;
    }
    case 1: {  // a user's refresh: a failure changes nothing
      auto user = JovUser::userWithID("u1");
      auto refreshed = user->refreshSynchronous();
      if (!refreshed) check(user->username().empty() && user->email().empty());
      else check(success(answer.status));
      break;
    }
    case 2: {  // a group's refresh
      auto group = JovGroup::groupWithID("g1");
      auto refreshed = group->refreshSynchronous();
      if (!refreshed) check(group->name().empty());
      else check(success(answer.status));
      break;
    }
    case 3: {  // an object's refresh and its loader
      auto object = Jov::bucketWithName("notes")->createObjectWithID("o1");
      const auto before = object->dictionaryValue();
      auto refreshed = object->refreshSynchronous();
      if (!refreshed) check(object->dictionaryValue() == before);
      else check(success(answer.status));
      const auto loaded = object->dictionaryValue();
      if (!json.is_discarded() && !object->loadFromJSON(json))
        check(object->dictionaryValue() == loaded);
      (void)object->describe();
      break;
    }
    case 4: {  // the loaders given the body as a record
      if (json.is_discarded()) break;
      auto user = JovUser::userWithID("u2");
      if (!user->loadFromJSON(json)) check(user->username().empty() && user->email().empty());
      auto group = JovGroup::groupWithID("g2");
      if (!group->loadFromJSON(json)) check(group->name().empty());
      auto installation = JovPushInstallation::installation();
      (void)installation->loadFromJSON(json);
      break;
    }
    case 5: {  // URIs of users, groups and objects
      const std::string& uri = answer.body;
      if (auto user = JovUser::userWithURI(uri)) check(!user->userID().empty());
      if (auto group = JovGroup::groupWithURI(uri)) check(!group->groupID().empty());
      if (auto object = JovObject::objectWithURI(uri)) {
        auto again = object->objectURI();
        check(again && JovObject::objectWithURI(*again) != nullptr);
      }
      break;
    }
    case 6: {  // a count's answer
      auto counted = Jov::bucketWithName("notes")->countSynchronous();
      if (counted) check(success(answer.status) && counted.value() >= 0);
      break;
    }
    case 7: {  // a page of a query
      auto page = Jov::bucketWithName("notes")->executeQuerySynchronous(JovQuery());
      if (page) check(success(answer.status));
      break;
    }
    case 8: {  // a thing's refresh: a failure changes nothing; and its loader
      auto thing = JovThing::thingWithID("th.1");
      auto refreshed = thing->refreshSynchronous();
      if (!refreshed) check(thing->thingType().empty() && thing->fields().toJSON().empty());
      else check(success(answer.status));
      const auto type = thing->thingType();
      if (!json.is_discarded() && !thing->loadFromJSON(json)) check(thing->thingType() == type);
      break;
    }
    case 9: {  // a page of a thing query
      auto page = JovThing::querySynchronous(
          JovThingQuery::thingQuery(JovUser::userWithID("u1"), std::nullopt));
      if (page) {
        check(success(answer.status));
        for (const auto& thing : page.value().results) check(!thing->thingID().empty());
      }
      break;
    }
    case 10: {  // an MQTT endpoint: taken only whole, and then usable by a receiver
      Jov::setCurrentUser(JovUser::userWithID("u1"));
      auto installation = JovMQTTInstallation::installationWithIDs("i1", "r1");
      auto endpoint = installation->endpointSynchronous();
      if (endpoint) {
        check(success(answer.status) && !endpoint.value().host.empty() &&
              endpoint.value().portTCP > 0 && endpoint.value().portTCP < 65536);
        check(JovMQTTEndpoint::fromJSON(endpoint.value().toJSON()) == endpoint.value());
      }
      JovUser::logOut();
      break;
    }
    default: {  // a received push payload: every reading, no exchange
      if (json.is_discarded()) break;
      auto message = JovReceivedMessage::messageFromPayload(json);
      (void)message.getAlertBody();
      for (int field = -1; field <= 15; ++field) (void)message.getValueOfJovMessageField(field);
      (void)message.senderUser();
      (void)message.senderThing();
      if (auto object = message.eventSourceObject()) check(message.containsJovObject());
      if (auto bucket = message.eventSourceBucket()) check(bucket->bucketPath().has_value());
      (void)message.eventSourceTopic();
      break;
    }
  }
  return 0;
}
