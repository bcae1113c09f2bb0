// SPDX-License-Identifier: MIT
#include "driver/output_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <thread>

#include "tests/support/own_folder.h"

namespace ipplayout {
namespace {

const platform::DeadlineWaiter kPatient;

std::unique_ptr<OutputFile> Open(const std::string& path) {
  auto opened = OutputFile::Open(path);
  EXPECT_EQ(opened.error, 0) << opened.step;
  return std::move(opened.value);
}

int Write(OutputFile& file, std::string_view text,
          const platform::DeadlineWaiter& waiter = kPatient) {
  const int error = file.MakeRoom(text.size(), waiter);
  if (error == 0) {
    std::ranges::copy(text, file.Append(text.size()).begin());
  }
  return error;
}

// A text that tells one place from another, several times what the buffer holds.
std::string LongText() {
  std::string text;
  for (int i = 0; text.size() < 5 * OutputFile::kBufferBytes; ++i) {
    text += std::to_string(i) + " ";
  }
  return text;
}

int WriteInPieces(OutputFile& file, const std::string& text) {
  for (std::size_t at = 0, size = 1; at < text.size(); at += size, size = size * 3 % 9973 + 1) {
    if (const int error = Write(file, std::string_view(text).substr(at, size)); error != 0) {
      return error;
    }
  }
  return 0;
}

TEST(OutputFile, HasItsNameOnceItIsWhole) {
  const OwnFolder folder;
  const std::string path = folder.File("whole");
  const std::string text = LongText();
  for (const std::string earlier : {"", "what was there before"}) {
    EXPECT_EQ(ContentOf(path), earlier.empty() ? "" : text);
    const auto file = Open(path);
    EXPECT_EQ(WriteInPieces(*file, text), 0);
    EXPECT_EQ(ContentOf(path), earlier.empty() ? "" : text);  // as it was
    EXPECT_EQ(file->Finish(), 0);
    EXPECT_EQ(ContentOf(path), text);
    EXPECT_EQ(folder.Entries(), 1U);
    EXPECT_EQ(file->Finish(), 0);
  }
  Write(*Open(path), "not finished");
  EXPECT_EQ(ContentOf(path), text);
  EXPECT_EQ(folder.Entries(), 1U);
}

TEST(OutputFile, TwoWritersOfOneFileDoNotMix) {
  const OwnFolder folder;
  const auto first = Open(folder.File("one"));
  EXPECT_EQ(OutputFile::Open(folder.File("one")).error, EEXIST);
  EXPECT_EQ(Write(*first, "first"), 0);
  EXPECT_EQ(first->Finish(), 0);
  EXPECT_EQ(ContentOf(folder.File("one")), "first");
}

TEST(OutputFile, WhatASymbolicLinkPointsToIsWrittenAsItStands) {
  const OwnFolder folder;
  ASSERT_EQ(::symlink(folder.File("target").c_str(), folder.File("link").c_str()), 0);
  const auto file = Open(folder.File("link"));
  EXPECT_EQ(Write(*file, "text"), 0);
  EXPECT_EQ(file->Finish(), 0);
  EXPECT_EQ(ContentOf(folder.File("target")), "text");
  EXPECT_EQ(folder.Entries(), 2U);
}

TEST(OutputFile, WritesDevices) {
  const auto nowhere = Open("/dev/null");
  EXPECT_EQ(WriteInPieces(*nowhere, LongText()), 0);
  EXPECT_EQ(nowhere->Finish(), 0);

  const auto full = Open("/dev/full");
  EXPECT_EQ(WriteInPieces(*full, LongText()), ENOSPC);
  EXPECT_EQ(Write(*full, "more"), ENOSPC);
  EXPECT_EQ(full->Finish(), ENOSPC);

  const auto full_at_the_end = Open("/dev/full");
  EXPECT_EQ(Write(*full_at_the_end, "short"), 0);
  EXPECT_EQ(full_at_the_end->Finish(), ENOSPC);
}

TEST(OutputFile, ADiskThatFillsUpLeavesNothingBehind) {
  const OwnFolder folder;
  std::thread([&folder] {
    const std::string disk = folder.File("");
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << "needs root";
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("none", disk.c_str(), "tmpfs", 0, "size=600k"), 0);
    {
      const auto file = Open(folder.File("file"));
      EXPECT_EQ(WriteInPieces(*file, LongText()), ENOSPC);
      EXPECT_EQ(std::filesystem::space(disk).available, 0U);  // a write fell short
      EXPECT_EQ(file->Finish(), ENOSPC);
    }
    EXPECT_EQ(folder.Entries(), 0U);
    ::umount(disk.c_str());
  }).join();
}

TEST(OutputFile, WaitsForTheReaderOfAPipe) {
  const OwnFolder folder;
  const std::string path = folder.File("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(OutputFile::Open(path).error, ENXIO);

  const platform::Descriptor reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const auto file = Open(path);
  const std::string text = LongText();
  const std::string_view first = std::string_view(text).substr(0, OutputFile::kBufferBytes);
  EXPECT_EQ(Write(*file, first), 0);
  platform::DeadlineWaiter impatient;
  impatient.GiveUpAt(impatient.Now());
  EXPECT_EQ(Write(*file, first, impatient), ECANCELED);
  EXPECT_EQ(file->Waits(), 1U);

  std::string read;
  std::thread reading([&] {
    ::fcntl(reader.Get(), F_SETFL, 0);
    char some[5000];
    for (ssize_t size = 1; size > 0;) {
      size = ::read(reader.Get(), some, sizeof some);
      read.append(some, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    }
  });
  EXPECT_EQ(WriteInPieces(*file, text.substr(first.size())), 0);
  EXPECT_EQ(file->Finish(), 0);
  reading.join();
  EXPECT_EQ(read, text);
}

TEST(OutputFile, AReaderThatHasGoneIsAnErrorAndNoSignal) {
  const OwnFolder folder;
  const std::string path = folder.File("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  platform::Descriptor reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const auto file = Open(path);
  reader = platform::Descriptor();
  EXPECT_EQ(WriteInPieces(*file, LongText()), EPIPE);
  EXPECT_EQ(file->Finish(), EPIPE);
}

TEST(OutputFile, TellsWhyItCannotBeOpened) {
  const OwnFolder folder;
  const struct {
    std::string path;
    int error;
    std::string_view step;
  } cases[] = {
      {folder.File("nowhere/file"), ENOENT, "create the file"},
      {folder.File(""), EISDIR, "open the file"},
      {"", ENOENT, "open the file"},
  };
  for (const auto& c : cases) {
    const auto opened = OutputFile::Open(c.path);
    EXPECT_EQ(opened.value, nullptr) << c.path;
    EXPECT_EQ(opened.error, c.error) << c.path;
    EXPECT_EQ(opened.step, c.step) << c.path;
  }
}

}  // namespace
}  // namespace ipplayout
