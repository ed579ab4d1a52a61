// Object bodies and resumable transfers: jov body upload|download|publish|delete, and
// jov transfers list|resume|cancel. Large files move as resumable transfers (in chunks, kept in
// the profile's transfer store), so an interrupted `jov body upload` continues where it stopped
// when run again or through `jov transfers resume`.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "app.hpp"

namespace jovcli {

namespace {

// Files larger than this move as resumable transfers unless --single is given.
constexpr std::int64_t kResumableFrom = std::int64_t{16} << 20;

struct BodyArgs {
  std::string uri, file, type;
  bool single = false, resumable = false;
  std::int64_t expiresIn = 0;
  std::string expiresAt;
  std::int64_t id = 0;
  std::int64_t chunk = 0;
};

std::shared_ptr<jov::JovObject> objectNamed(const std::string& uri) {
  auto object = jov::JovObject::objectWithURI(uri);
  if (!object)
    throw usageError(
        "not an object URI: " + uri +
        " (jovcloud://buckets/B/objects/ID or jovcloud://users/U/buckets/B/objects/ID)");
  return object;
}

std::string humanBytes(double bytes) {
  static const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

// A progress bar on a terminal (redrawn in place: bytes, rate, ETA); plain lines elsewhere, at
// most one per tenth of the total, so a log stays readable.
class ProgressBar {
 public:
  explicit ProgressBar(std::string label, bool quiet)
      : label_(std::move(label)), quiet_(quiet), terminal_(::isatty(STDERR_FILENO) == 1) {}

  void operator()(std::int64_t done, std::int64_t total) {
    if (quiet_) return;
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - started_).count();
    const double rate = seconds > 0 ? static_cast<double>(done - first_) / seconds : 0;
    if (first_ < 0) first_ = done;
    if (terminal_) {
      if (now - drawn_ < std::chrono::milliseconds(100) && done != total) return;
      drawn_ = now;
      std::string line = "\r" + label_ + " ";
      if (total > 0) {
        const int width = 30;
        const int filled =
            static_cast<int>(width * static_cast<double>(done) / static_cast<double>(total));
        line += "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
        char percent[16];
        std::snprintf(
            percent, sizeof percent, "%3d%% ",
            static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(total)));
        line += percent;
      }
      line += humanBytes(static_cast<double>(done));
      if (total > 0) line += " / " + humanBytes(static_cast<double>(total));
      if (rate > 0) {
        line += "  " + humanBytes(rate) + "/s";
        if (total > 0 && done < total) {
          const auto eta = static_cast<long>(std::lround(static_cast<double>(total - done) / rate));
          char text[32];
          std::snprintf(text, sizeof text, "  ETA %ld:%02ld", eta / 60, eta % 60);
          line += text;
        }
      }
      std::cerr << line << "\x1b[K" << std::flush;
      open_ = true;
    } else {
      const int tenth = total > 0 ? static_cast<int>(10 * done / total) : -1;
      if (total > 0 && tenth == lastTenth_) return;
      lastTenth_ = tenth;
      std::cerr << label_ << ": " << humanBytes(static_cast<double>(done));
      if (total > 0) std::cerr << " of " << humanBytes(static_cast<double>(total));
      std::cerr << "\n";
    }
  }
  ~ProgressBar() {
    if (open_) std::cerr << "\n";
  }

 private:
  std::string label_;
  bool quiet_, terminal_, open_ = false;
  int lastTenth_ = -1;
  std::int64_t first_ = -1;
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now(), drawn_;
};

json transferJSON(const jov::JovResumableTransfer::Info& info) {
  return {
      {"id", info.id},
      {"direction", info.direction == jov::JovTransferDirection::Upload ? "upload" : "download"},
      {"state", std::string(jov::jovTransferStateName(info.state))},
      {"bytes", info.bytesDone},
      {"total", info.total},
      {"object", info.objectURI},
      {"file", info.localPath.string()},
      {"error", info.error ? json(info.error->describe()) : json(nullptr)}};
}

json recordJSON(const jov::JovTransferRecord& r) {
  return {{"id", r.id},
          {"direction", r.direction == jov::JovTransferDirection::Upload ? "upload" : "download"},
          {"state", std::string(jov::jovTransferStateName(r.state))},
          {"bytes", r.bytesConfirmed},
          {"total", r.totalBytes},
          {"object", r.objectURI},
          {"file", r.localPath.string()},
          {"error", r.errorCode != 0 ? json(r.errorMessage) : json(nullptr)}};
}

// Runs a resumable transfer to its end with a progress bar; an interrupted one can be resumed.
void runTransfer(Context& ctx, const std::shared_ptr<jov::JovResumableTransfer>& transfer,
                 const std::string& label, const std::string& what) {
  ProgressBar bar(label, ctx.jsonOutput());
  auto done = transfer->transferSynchronous([&bar](std::int64_t d, std::int64_t t) { bar(d, t); });
  if (!done) {
    throw failure(what + ": " + describeError(done.error()) + " (transfer " +
                  std::to_string(transfer->info().id) + "; `jov transfers resume " +
                  std::to_string(transfer->info().id) + "` continues it)");
  }
}

std::int64_t fileSize(const std::string& file) {
  std::error_code ec;
  auto size = std::filesystem::file_size(file, ec);
  return ec ? -1 : static_cast<std::int64_t>(size);
}

}  // namespace

void addBodyCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<BodyArgs>();

  auto* body = jov.add_subcommand("body", "Upload, download, publish or delete an object's body");
  body->require_subcommand(1);

  auto* upload = body->add_subcommand("upload", "Upload a file as the object's body");
  upload->add_option("object", args->uri, "Object URI (jovcloud://...)")->required();
  upload->add_option("file", args->file, "The file")->required()->check(CLI::ExistingFile);
  upload->add_option("--type", args->type, "Media type (default: from the file's extension)");
  auto* single = upload->add_flag("--single", args->single, "One request, even for a large file");
  upload->add_flag("--resumable", args->resumable, "In chunks, even for a small file")
      ->excludes(single);
  upload->add_option("--chunk", args->chunk, "Chunk size in bytes of a resumable upload");
  upload->callback([&ctx, args] {
    ctx.session();
    auto object = objectNamed(args->uri);
    const std::int64_t size = fileSize(args->file);
    const bool resumable = !args->single && (args->resumable || size >= kResumableFrom);
    if (args->chunk > 0) jov::JovResumableTransfer::setDefaultChunkSize(args->chunk);
    if (resumable) {
      runTransfer(ctx, object->uploader(args->file, args->type), "upload", "cannot upload");
    } else {
      ProgressBar bar("upload", ctx.jsonOutput());
      ctx.check(object->uploadBodySynchronousWithURL(
                    args->file, args->type, [&bar](std::int64_t d, std::int64_t t) { bar(d, t); }),
                "cannot upload");
    }
    ctx.print({{"object", args->uri},
               {"bytes", size},
               {"resumable", resumable},
               {"contentType", object->bodyContentType().value_or("")}},
              "uploaded " + humanBytes(static_cast<double>(size)) + " to " + args->uri);
  });

  auto* download = body->add_subcommand("download", "Download the object's body into a file");
  download->add_option("object", args->uri, "Object URI (jovcloud://...)")->required();
  download->add_option("file", args->file, "The destination")->required();
  auto* singleDown = download->add_flag("--single", args->single, "One request");
  download->add_flag("--resumable", args->resumable, "In chunks (the default)")
      ->excludes(singleDown);
  download->add_option("--chunk", args->chunk, "Chunk size in bytes");
  download->callback([&ctx, args] {
    ctx.session();
    auto object = objectNamed(args->uri);
    if (args->chunk > 0) jov::JovResumableTransfer::setDefaultChunkSize(args->chunk);
    if (args->single) {
      ProgressBar bar("download", ctx.jsonOutput());
      ctx.check(object->downloadBodySynchronousWithURL(
                    args->file, [&bar](std::int64_t d, std::int64_t t) { bar(d, t); }),
                "cannot download");
    } else {
      runTransfer(ctx, object->downloader(args->file), "download", "cannot download");
    }
    const std::int64_t size = fileSize(args->file);
    ctx.print({{"object", args->uri},
               {"file", args->file},
               {"bytes", size},
               {"contentType", object->bodyContentType().value_or("")}},
              "downloaded " + humanBytes(static_cast<double>(size)) + " to " + args->file);
  });

  auto* publish = body->add_subcommand("publish", "Make a public link to the object's body");
  publish->add_option("object", args->uri, "Object URI (jovcloud://...)")->required();
  auto* in =
      publish->add_option("--expires-in", args->expiresIn, "The link works this many seconds");
  publish
      ->add_option("--expires-at", args->expiresAt,
                   "The link works until this time (milliseconds since 1970)")
      ->excludes(in);
  publish->callback([&ctx, args, in] {
    ctx.session();
    auto object = objectNamed(args->uri);
    std::string url;
    if (in->count() > 0) {
      url =
          ctx.check(object->publishBodySynchronousExpiresIn(std::chrono::seconds(args->expiresIn)),
                    "cannot publish");
    } else if (!args->expiresAt.empty()) {
      std::int64_t millis = 0;
      try {
        millis = std::stoll(args->expiresAt);
      } catch (const std::exception&) {
        throw usageError("--expires-at takes milliseconds since 1970");
      }
      const jov::JovObject::TimePoint at{std::chrono::milliseconds(millis)};
      url = ctx.check(object->publishBodySynchronousExpiresAt(at), "cannot publish");
    } else {
      url = ctx.check(object->publishBodySynchronous(), "cannot publish");
    }
    ctx.print({{"object", args->uri}, {"url", url}}, url);
  });

  auto* remove = body->add_subcommand("delete", "Delete the object's body");
  remove->add_option("object", args->uri, "Object URI (jovcloud://...)")->required();
  remove->callback([&ctx, args] {
    ctx.session();
    auto object = objectNamed(args->uri);
    ctx.confirm("Delete the body of " + args->uri + "?");
    ctx.check(object->deleteBodySynchronous(), "cannot delete the body");
    ctx.print({{"object", args->uri}, {"deleted", true}}, "deleted the body of " + args->uri);
  });

  auto* transfers = jov.add_subcommand("transfers", "Resumable transfers of the logged-in user");
  transfers->require_subcommand(1);

  auto* list = transfers->add_subcommand("list", "List the transfers kept in the profile");
  list->callback([&ctx] {
    auto user = ctx.session();
    auto store = ctx.check(jov::JovRTransferStore::sharedStore(), "cannot open the transfer store");
    std::vector<std::vector<json>> rows;
    for (const auto& record : store->list(user->userID())) {
      json r = recordJSON(record);
      rows.push_back(
          {r["id"], r["direction"], r["state"], r["bytes"], r["total"], r["object"], r["file"]});
    }
    ctx.printTable({"id", "direction", "state", "bytes", "total", "object", "file"},
                   {"ID", "DIRECTION", "STATE", "BYTES", "TOTAL", "OBJECT", "FILE"}, rows,
                   "no transfers");
  });

  // The transfer of a record ID, made from its object's bucket (the manager checks the user).
  auto transferOf = [&ctx](std::int64_t id) {
    auto user = ctx.session();
    auto store = ctx.check(jov::JovRTransferStore::sharedStore(), "cannot open the transfer store");
    auto record = store->find(id);
    if (!record || record->userID != user->userID())
      throw failure("no transfer " + std::to_string(id));
    auto object = objectNamed(record->objectURI);
    return ctx.check(object->bucket()->transferManager()->transferWithID(id),
                     "no transfer " + std::to_string(id));
  };

  auto* resume = transfers->add_subcommand("resume", "Continue a transfer from where it stopped");
  resume->add_option("id", args->id, "Transfer ID (see jov transfers list)")->required();
  resume->callback([&ctx, args, transferOf] {
    auto transfer = transferOf(args->id);
    const bool up = transfer->info().direction == jov::JovTransferDirection::Upload;
    runTransfer(ctx, transfer, up ? "upload" : "download", "cannot resume");
    ctx.print(transferJSON(transfer->info()),
              "transfer " + std::to_string(args->id) + " completed");
  });

  auto* cancel = transfers->add_subcommand("cancel", "Stop a transfer for good and forget it");
  cancel->add_option("id", args->id, "Transfer ID")->required();
  cancel->callback([&ctx, args, transferOf] {
    auto transfer = transferOf(args->id);
    auto object = transfer->object();
    ctx.check(object->bucket()->transferManager()->remove(args->id), "cannot cancel");
    ctx.print({{"id", args->id}, {"cancelled", true}},
              "transfer " + std::to_string(args->id) + " cancelled");
  });
}

}  // namespace jovcli
