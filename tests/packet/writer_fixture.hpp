// What the writer suites share: a client per test, its record, calls checked for their refusals and their bytes.
#pragma once

#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include "packet/packet_record.hpp"
#include "support/paths.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace boxlane::test {

// Hand-written hex in the form box() returns.
inline std::string bytes_hex(std::string_view text) { return hex(unhex(text)); }

// Expects call(buffer, &length) to fail with `code` and leave buffer and length alone.
template <typename Call>
void expect_refused(Call&& call, uint64_t code) {
  std::vector<uint8_t> buffer(256, 0xAB);
  int32_t length = -7;
  EXPECT_FALSE(call(buffer.data(), &length));
  EXPECT_EQ(std::tuple(Boxlane_IsErrorOccur, Boxlane_GetLastError(nullptr), length), std::tuple(true, code, -7));
  EXPECT_EQ(buffer, std::vector<uint8_t>(256, 0xAB));
}

class WriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    name_ = std::string("writer/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_TRUE(Boxlane_Packet_Insert(client()));
  }
  void TearDown() override { Boxlane_Packet_Delete(client()); }
  const char* client() const { return name_.c_str(); }
  QORVANE_MP4PACKET& record() { return *m_MP4Packet.stl_MapClient.find(name_)->second; }

  // Every call is first refused for a null client, a null buffer or length, and a client deleted after this thread
  // reached it, with nothing written; then it must succeed into a buffer of 0xFF bytes, changing none past the
  // reported length. Returns the reported bytes as hex.
  template <typename Writer, typename... Args>
  std::string box(Writer writer, Args... args) {
    const auto call = [&](const char* c, uint8_t* b, int32_t* l) { return writer(c, b, l, args...); };
    const std::string gone = name_ + ".gone";
    const auto parameter = BOXLANE_ERROR_PACKET_PARAMETER;
    expect_refused([&](uint8_t* b, int32_t* l) { return call(nullptr, b, l); }, parameter);
    expect_refused([&](uint8_t* b, int32_t*) { return call(client(), b, nullptr); }, parameter);
    EXPECT_TRUE(Boxlane_Packet_Insert(gone.c_str()));
    expect_refused([&](uint8_t*, int32_t* l) { return call(gone.c_str(), nullptr, l); }, parameter);
    EXPECT_TRUE(Boxlane_Packet_Delete(gone.c_str()));
    expect_refused([&](uint8_t* b, int32_t* l) { return call(gone.c_str(), b, l); }, BOXLANE_ERROR_PACKET_NOTFOUND);
    std::vector<uint8_t> buffer(4096, 0xFF);
    int32_t length = -1;
    EXPECT_TRUE(call(client(), buffer.data(), &length)) << "code " << std::hex << Boxlane_GetLastError(nullptr);
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    if (length < 0 || length > 4096) return "length " + std::to_string(length);
    EXPECT_TRUE(std::all_of(buffer.begin() + length, buffer.end(), [](uint8_t b) { return b == 0xFF; }));
    return hex(buffer.data(), static_cast<std::size_t>(length));
  }
  // Calls the writer into a heap buffer of exactly the size boxlane.h documents for its arguments: under the
  // address sanitizer one byte past it is a heap-buffer-overflow; the reported length must be that size.
  template <typename Writer, typename... Args>
  void exact(std::size_t documented, Writer writer, Args... args) {
    const auto buffer = std::make_unique<uint8_t[]>(documented);
    int32_t length = -1;
    ASSERT_TRUE(writer(client(), buffer.get(), &length, args...)) << std::hex << Boxlane_GetLastError(nullptr);
    EXPECT_EQ(length, static_cast<int32_t>(documented));
  }
  template <typename Writer, typename... Args>
  void refuses(uint64_t code, Writer writer, Args... args) {
    expect_refused([&](uint8_t* b, int32_t* l) { return writer(client(), b, l, args...); }, code);
  }

  // A video frame of `size` bytes (a start code, then 0x41) and a raw AAC frame of `size` bytes 0x21; each returns
  // the sample bytes as hex.
  std::string video(int size, int key, int duration, int cts, int64_t position = 0) {
    std::vector<uint8_t> frame(static_cast<std::size_t>(size), 0x41);
    frame[0] = frame[1] = frame[2] = 0, frame[3] = 1;
    return box(Boxlane_Packet_FrameVideo, frame.data(), size, position, key, duration, cts);
  }
  std::string audio(int size, int duration, int64_t position = 0) {
    const std::vector<uint8_t> frame(static_cast<std::size_t>(size) + 1, 0x21);
    return box(Boxlane_Packet_FrameAudio, frame.data(), size, position, duration);
  }
  std::string name_;
};

}  // namespace boxlane::test
