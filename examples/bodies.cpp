// Bodies in a few lines: alice attaches a photo to a note, publishes a link anyone can open for
// a minute, and moves a larger file as a resumable transfer that she suspends half-way and
// resumes; the bytes that come back are the bytes that went up.
//
//   usage: bodies BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/object.hpp"
#include "jov/transfer.hpp"
#include "jov/user.hpp"

namespace {

template <class R>
bool check(const R& result, const std::string& what) {
  if (result.ok()) return true;
  std::cerr << "Could not " << what << ": " << result.error().describe() << "\n";
  return false;
}

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: bodies BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  const std::filesystem::path dir = argv[4];
  Jov::setDataDirectory(dir);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto alice = JovUser::userWithUsername("alice-bodies" + suffix, "pass1234");
  if (!check(alice->performRegistrationSynchronous(), "register alice")) return 1;

  auto note = alice->bucketWithName("album")->createObject();
  note->setObject("holiday", "title");
  if (!check(note->saveSynchronous(), "save the note")) return 1;
  const auto photo = dir / "beach.png";
  std::ofstream(photo, std::ios::binary) << std::string("\x89PNG\r\n") + std::string(20000, 'p');
  if (!check(note->uploadBodySynchronousWithURL(photo, ""), "upload the photo")) return 1;
  std::cout << "uploaded " << photo.filename() << " as " << note->bodyContentType().value_or("?")
            << "\n";
  auto link = note->publishBodySynchronousExpiresIn(std::chrono::seconds(60));
  if (!check(link, "publish the photo")) return 1;
  std::cout << "anyone can open it for a minute: " << link.value() << "\n";

  // 6 MiB in 1 MiB chunks: suspended after the second chunk, resumed from the third.
  JovResumableTransfer::setDefaultChunkSize(std::int64_t{1} << 20);
  const auto video = dir / "clip.bin";
  {
    std::mt19937 random(7);
    std::string bytes(6 << 20, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    std::ofstream(video, std::ios::binary) << bytes;
  }
  auto upload = note->uploader(video);
  auto first = upload->transferSynchronous([&](std::int64_t done, std::int64_t total) {
    if (done >= 2 << 20 && done < total) (void)upload->suspend();
  });
  if (first.ok() || first.error().code() != JovError::codeTransferWasSuspended()) {
    std::cerr << "The upload was not suspended\n";
    return 1;
  }
  std::cout << "suspended after " << upload->info().bytesDone << " of " << upload->info().total
            << " bytes\n";
  std::int64_t resumedAt = -1;
  if (!check(upload->transferSynchronous([&](std::int64_t done, std::int64_t) {
        if (resumedAt < 0) resumedAt = done;
      }),
             "resume the upload"))
    return 1;
  std::cout << "resumed at byte " << resumedAt << " and completed\n";

  const auto back = dir / "clip-back.bin";
  if (!check(note->downloader(back)->transferSynchronous(), "download the clip")) return 1;
  if (contentOf(back) != contentOf(video)) {
    std::cerr << "The downloaded clip differs from the one uploaded\n";
    return 1;
  }
  std::cout << "downloaded it in chunks: the same " << std::filesystem::file_size(back)
            << " bytes\n";
  return 0;
}
