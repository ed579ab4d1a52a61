#include "mqtt_broker.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

namespace jovemu {

namespace {

std::string base64(const unsigned char* bytes, int size) {
  std::string out(static_cast<std::size_t>(4 * ((size + 2) / 3)), '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes, size);
  out.resize(static_cast<std::size_t>(written));
  return out;
}

// The administrator as the dynamic security plugin stores a client: PBKDF2-HMAC-SHA512 of the
// password over a random 12-byte salt, 101 iterations, both in base64.
nlohmann::json adminClient(const std::string& user, const std::string& password) {
  unsigned char salt[12];
  unsigned char hash[64];
  if (RAND_bytes(salt, sizeof salt) != 1 ||
      PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt, sizeof salt, 101,
                        EVP_sha512(), sizeof hash, hash) != 1) {
    throw std::runtime_error("cannot hash the broker administrator's password");
  }
  return {{"username", user},
          {"textName", "jov-emulator"},
          {"password", base64(hash, sizeof hash)},
          {"salt", base64(salt, sizeof salt)},
          {"iterations", 101},
          {"roles", {{{"rolename", "jov-admin"}}}}};
}

nlohmann::json acl(const char* type, const char* topic) {
  return {{"acltype", type}, {"topic", topic}, {"allow", true}};
}

std::string dynamicSecurityPlugin() {
  for (const char* dir :
       {"/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu", "/usr/lib", "/usr/local/lib"}) {
    const auto path = std::filesystem::path(dir) / "mosquitto_dynamic_security.so";
    if (std::filesystem::exists(path)) return path.string();
  }
  return {};
}

bool accepts(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

}  // namespace

int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("cannot open a socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    throw std::runtime_error("cannot find a free port");
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string findMosquitto() {
  if (::access("/usr/sbin/mosquitto", X_OK) == 0) return "/usr/sbin/mosquitto";
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "";
  for (std::size_t start = 0; start <= dirs.size();) {
    const std::size_t end = std::min(dirs.find(':', start), dirs.size());
    const auto candidate = std::filesystem::path(dirs.substr(start, end - start)) / "mosquitto";
    if (end > start && ::access(candidate.c_str(), X_OK) == 0) return candidate.string();
    start = end + 1;
  }
  return {};
}

void writeBrokerConfig(const std::filesystem::path& dir, int port, const std::string& adminUser,
                       const std::string& adminPassword) {
  const std::string plugin = dynamicSecurityPlugin();
  if (plugin.empty()) {
    throw std::runtime_error("mosquitto's dynamic security plugin is not installed");
  }
  std::filesystem::create_directories(dir);
  const auto dynsec = dir / "dynsec.json";
  if (!std::filesystem::exists(dynsec)) {
    nlohmann::json config = {{"clients", {adminClient(adminUser, adminPassword)}},
                             {"roles",
                              {{{"rolename", "jov-admin"},
                                {"acls",
                                 {acl("publishClientSend", "$CONTROL/dynamic-security/#"),
                                  acl("publishClientReceive", "$CONTROL/dynamic-security/#"),
                                  acl("subscribePattern", "$CONTROL/dynamic-security/#"),
                                  acl("publishClientSend", "jov/#")}}}}},
                             // Nobody subscribes where no role of theirs allows it.
                             {"defaultACLAccess",
                              {{"publishClientSend", false},
                               {"publishClientReceive", true},
                               {"subscribe", false},
                               {"unsubscribe", true}}}};
    std::ofstream out(dynsec, std::ios::trunc);
    out << config.dump(1, '\t') << "\n";
    if (!out.flush()) throw std::runtime_error("cannot write " + dynsec.string());
  }
  const auto conf = dir / "mosquitto.conf";
  std::ofstream out(conf, std::ios::trunc);
  out << "# Written by jov-emulator.\n"
      << "per_listener_settings false\n"
      << "allow_anonymous false\n"
      << "plugin " << plugin << "\n"
      << "plugin_opt_config_file " << dynsec.string() << "\n"
      << "persistence true\n"
      << "persistence_location " << dir.string() << "/\n"
      << "max_queued_messages 100000\n"
      << "set_tcp_nodelay true\n"
      << "log_dest stderr\n"
      << "log_type error\nlog_type warning\nlog_type notice\n"
      << "listener " << port << " 127.0.0.1\n";
  // Started as root, mosquitto would switch to its own user, which cannot read our directory.
  if (::geteuid() == 0) out << "user root\n";
  if (!out.flush()) throw std::runtime_error("cannot write " + conf.string());
}

BrokerProcess::BrokerProcess(std::filesystem::path dir, int port)
    : dir_(std::move(dir)), port_(port) {}

BrokerProcess::~BrokerProcess() {
  stop();
}

void BrokerProcess::start() {
  if (pid_ > 0) return;
  const std::string program = findMosquitto();
  if (program.empty()) throw std::runtime_error("mosquitto is not installed");
  const std::string conf = (dir_ / "mosquitto.conf").string();
  const std::string log = (dir_ / "mosquitto.log").string();
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("cannot start mosquitto");
  if (pid == 0) {
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd >= 0) {
      ::dup2(fd, STDOUT_FILENO);
      ::dup2(fd, STDERR_FILENO);
    }
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, STDIN_FILENO);
    // The emulator takes SIGINT and SIGTERM by sigwait with them blocked: unblock them here.
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execl(program.c_str(), program.c_str(), "-c", conf.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  pid_ = pid;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (accepts(port_)) return;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("mosquitto exited at start; see " + log);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stop();
  throw std::runtime_error("mosquitto did not listen on port " + std::to_string(port_) +
                           " within 10 s; see " + log);
}

void BrokerProcess::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  pid_ = -1;
}

}  // namespace jovemu
