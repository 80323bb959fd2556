// Bytes of a ring file, all little-endian:
//
//     0     magic 8 | version 4 | descriptorCount 4 | messageCount 4 | zero 4 | next sequence 8
//     64    descriptors: checksum 4 | line 4 | length of source 2 | length of format 2 | source | format
//     ...   messages: checksum 4 | descriptor 4 | sequence 8 | length of payload 4 | payload
//
// Sequence numbers begin at 1; message n lies in slot n % messageCount. A reader trusts no number in the file: sizes
// are compared with the file's, lengths with their slots.
#include "runtime/Fastlog/RingFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "runtime/Zol/Exception.h"
#include "runtime/Zol/Hash.h"

namespace Fastlog {
namespace {

constexpr std::uint64_t magic = 0x31474E4952474F4CULL;
constexpr std::uint32_t version = 1;
constexpr std::size_t headerBytes = 64;
constexpr std::size_t descriptorBytes = 256;
constexpr std::size_t messageBytes = 128;
constexpr std::size_t ringAt = headerBytes + RingFile::descriptorCount * descriptorBytes;
constexpr std::size_t fileBytes = ringAt + RingFile::messageCount * messageBytes;

struct Header {
  std::uint64_t magic, versionAndDescriptors, messages, nextSequence;
};
struct DescriptorHead {
  std::uint32_t checksum, line;
  std::uint16_t sourceLength, formatLength;
};
struct MessageHead {
  std::uint32_t checksum, descriptor;
  std::uint64_t sequence;
  std::uint32_t length;
};
constexpr std::size_t payloadAt = 20;
constexpr std::size_t textAt = 12;
static_assert(payloadAt + RingFile::payloadMax == messageBytes);

constexpr std::uint64_t versionWord = version | std::uint64_t(RingFile::descriptorCount) << 32;

// Of all bytes of a slot behind the checksum itself.
std::uint32_t checksumOf(const char* slot, std::size_t bytes) {
  Zol::OneAtATime hash;
  for (std::size_t i = sizeof(std::uint32_t); i < bytes; ++i) {
    hash.byte(static_cast<std::uint8_t>(slot[i]));
  }
  return hash.result();
}

std::string withProcessId(std::string name) {
  const std::size_t at = name.find("%d");
  return at == std::string::npos ? name : name.replace(at, 2, std::to_string(getpid()));
}

std::byte* mapNewFile(const std::string& path) {
  std::rename(path.c_str(), (path + ".1").c_str());  // there may be none
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  void* base = MAP_FAILED;
  if (fd >= 0 && posix_fallocate(fd, 0, fileBytes) == 0) {
    base = mmap(nullptr, fileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  if (fd >= 0) {
    close(fd);
  }
  if (base == MAP_FAILED) {
    throw Zol::InternalException("cannot make the trace file " + path + ": " + std::strerror(errno));
  }
  return static_cast<std::byte*>(base);
}

// The text of a message: its format with the values filled in; values that are missing show as "?".
std::string render(std::string_view format, std::string_view payload) {
  std::string text;
  for (std::size_t i = 0; i < format.size(); ++i) {
    const bool isValue = format[i] == '%' && i + 1 < format.size() && (format[i + 1] == 'i' || format[i + 1] == 's');
    if (!isValue) {
      text += format[i];
      continue;
    }
    if (format[++i] == 'i' && payload.size() >= sizeof(std::int64_t)) {
      std::int64_t number = 0;
      std::memcpy(&number, payload.data(), sizeof number);
      payload.remove_prefix(sizeof number);
      text += std::to_string(number);
    } else if (format[i] == 's' && !payload.empty()) {
      const std::size_t length = std::min<std::size_t>(static_cast<unsigned char>(payload[0]), payload.size() - 1);
      text += payload.substr(1, length);
      payload.remove_prefix(1 + length);
    } else {
      text += '?';
    }
  }
  return text;
}

struct Descriptor {
  std::string place;
  std::string format;
};

Descriptor descriptorAt(const std::string& bytes, std::uint32_t number) {
  if (number >= RingFile::descriptorCount) {
    return {"unknown", ""};
  }
  const char* const slot = bytes.data() + headerBytes + number * descriptorBytes;
  DescriptorHead head;
  std::memcpy(&head, slot, sizeof head);
  if (head.checksum != checksumOf(slot, descriptorBytes) ||
      textAt + head.sourceLength + head.formatLength > descriptorBytes) {
    return {"unknown", ""};
  }
  const std::string_view text(slot + textAt, std::size_t(head.sourceLength) + head.formatLength);
  return {std::string(text.substr(0, head.sourceLength)) + ":" + std::to_string(head.line),
          std::string(text.substr(head.sourceLength))};
}

}  // namespace

std::unique_ptr<RingFile> RingFile::default_;

void RingFile::defaultFileIs(std::unique_ptr<RingFile> file) { default_ = std::move(file); }

RingFile::RingFile(const std::string& name) : path_(withProcessId(name)) {
  base_ = mapNewFile(path_);
  const Header header{magic, versionWord, messageCount, 0};
  std::memcpy(base_, &header, sizeof header);
}

RingFile::~RingFile() { munmap(base_, fileBytes); }

std::uint32_t RingFile::descriptorIs(std::string_view source, std::uint32_t line, std::string_view format) {
  if (descriptors_ == descriptorCount) {
    return descriptorCount;
  }
  source = source.substr(0, 64);
  format = format.substr(0, descriptorBytes - textAt - source.size());
  char slot[descriptorBytes] = {};
  DescriptorHead head{0, line, static_cast<std::uint16_t>(source.size()), static_cast<std::uint16_t>(format.size())};
  std::memcpy(slot, &head, sizeof head);
  std::copy(format.begin(), format.end(), std::copy(source.begin(), source.end(), slot + textAt));
  head.checksum = checksumOf(slot, descriptorBytes);
  std::memcpy(slot, &head.checksum, sizeof head.checksum);
  std::memcpy(base_ + headerBytes + descriptors_ * descriptorBytes, slot, sizeof slot);
  return descriptors_++;
}

void RingFile::write(std::uint32_t descriptor, std::string_view payload) {
  if (descriptor >= descriptorCount) {
    return;
  }
  payload = payload.substr(0, payloadMax);
  ++sequence_;
  char slot[messageBytes] = {};
  MessageHead head{0, descriptor, sequence_, static_cast<std::uint32_t>(payload.size())};
  std::memcpy(slot, &head, payloadAt);
  std::copy(payload.begin(), payload.end(), slot + payloadAt);
  head.checksum = checksumOf(slot, messageBytes);
  std::memcpy(slot, &head.checksum, sizeof head.checksum);
  std::memcpy(base_ + ringAt + sequence_ % messageCount * messageBytes, slot, sizeof slot);
  std::atomic_signal_fence(std::memory_order_release);  // a handler that ends the process finds the message whole
  std::memcpy(base_ + offsetof(Header, nextSequence), &sequence_, sizeof sequence_);
}

RingFileContents readRingFile(const std::string& path) {
  RingFileContents contents;
  std::ifstream file(path, std::ios::binary);
  std::string bytes(fileBytes + 1, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  Header header{};
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  if (bytes.size() != fileBytes || header.magic != magic || header.versionAndDescriptors != versionWord ||
      header.messages != RingFile::messageCount) {
    contents.problems.push_back(path + ": is no trace file of this version (" + std::to_string(bytes.size()) +
                                " bytes)");
    return contents;
  }
  std::map<std::uint64_t, std::string> bySequence;
  for (std::uint32_t i = 0; i < RingFile::messageCount; ++i) {
    const char* const slot = bytes.data() + ringAt + i * messageBytes;
    MessageHead head{};
    std::memcpy(&head, slot, payloadAt);
    if (head.sequence == 0 && head.checksum == 0) {
      continue;  // never written
    }
    if (head.checksum != checksumOf(slot, messageBytes) || head.length > RingFile::payloadMax) {
      contents.problems.push_back("slot " + std::to_string(i) + ": half-written or damaged");
      continue;
    }
    const Descriptor descriptor = descriptorAt(bytes, head.descriptor);
    bySequence[head.sequence] = std::to_string(head.sequence) + " " + descriptor.place + " " +
                                render(descriptor.format, std::string_view(slot + payloadAt, head.length));
  }
  for (auto& [sequence, text] : bySequence) {
    contents.messages.push_back(std::move(text));
  }
  return contents;
}

}  // namespace Fastlog
