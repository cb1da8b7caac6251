// The frame between worker processes, written and read over a socket pair.
#include "ipc/kyrMessage.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "ipc/ipcTestSupport.h"

namespace {

class MessageFrame : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
  void TearDown() override {
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }
  void sendRaw(int32_t type, int32_t len, const std::string& body = "") {
    ASSERT_TRUE(kyrtest::sendRaw(fds_[1], type, len, body));
  }
  int reader() const { return fds_[0]; }
  void closeWriter() {
    close(fds_[1]);
    fds_[1] = -1;
  }

  int fds_[2] = {-1, -1};
};

TEST_F(MessageFrame, ALengthBelowZeroOrPastAnyDocumentIsABrokenConnection) {
  for (int32_t len : {-1, INT32_MIN, INT32_MAX}) {
    sendRaw(MT_C2S_JSON, len);
    KyrMessage msg{};
    EXPECT_EQ(kyr::readMessage(reader(), &msg), -1) << len;
    EXPECT_EQ(msg.body, nullptr);
  }
}

TEST_F(MessageFrame, ALengthOfZeroCarriesNoBody) {
  sendRaw(MT_S2C_END_ROUTING_INFO, 0);
  KyrMessage msg{};
  msg.body = reinterpret_cast<char*>(&msg);  // what the last message left must not survive
  ASSERT_EQ(kyr::readMessage(reader(), &msg), 0);
  EXPECT_EQ(msg.hdr.type, MT_S2C_END_ROUTING_INFO);
  EXPECT_EQ(msg.body, nullptr);
}

TEST_F(MessageFrame, ATextArrivesWholeWithItsZeroAndTheSendersPid) {
  KyrMessage sent = kyr::kyrMessageWithText(MT_C2S_JSON, R"({"addRoutes":["a"]})");
  ASSERT_EQ(kyr::writeMessage(fds_[1], &sent), 0);
  KyrMessage msg{};
  ASSERT_EQ(kyr::readMessage(reader(), &msg), 0);
  EXPECT_EQ(msg.hdr.pid, getpid());
  EXPECT_EQ(msg.hdr.len, 20);
  EXPECT_STREQ(msg.body, R"({"addRoutes":["a"]})");
  kyr::kyrMessageFreeBody(&msg);
}

// The body read so far is freed (ASan would see it otherwise).
TEST_F(MessageFrame, APeerGoneInTheMiddleOfABodyIsABrokenConnection) {
  sendRaw(MT_S2C_ROUTING_INFO, 100, "{\"version\"");
  closeWriter();
  KyrMessage msg{};
  EXPECT_EQ(kyr::readMessage(reader(), &msg), -1);
  EXPECT_EQ(msg.body, nullptr);
}

}  // namespace
