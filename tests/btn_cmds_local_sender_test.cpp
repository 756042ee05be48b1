#include "buttons/btn_cmds_local_sender.h"

#include <gtest/gtest.h>

#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;

const std::string MISSING =
    "Error: Method: BtnCmdsLocalSender::_serializeToJson, exception thrown: map::at\n";

class Buttons : public testing::Test {
  protected:
    std::string received() const {
        const Bytes datagram = m_control_service.read_some();
        return {datagram.begin(), datagram.end()};
    }

    const Socket m_control_service{SOCK_DGRAM, "127.0.0.1", 3426};
};

TEST_F(Buttons, SendTheirTranslation) {
    for (uint32_t button = 0; button < 16; ++button) {
        SendButtonCommand(button);
        EXPECT_EQ(received(),
                  "[{\"msg_id\":" + std::to_string(100 + button) + ",\"param\":\"On\"}]");
    }
    EXPECT_EQ(BtnCmdsLocalSender::getInstance(), BtnCmdsLocalSender::getInstance());
}

TEST_F(Buttons, UnknownOneSendsTheLastCommandAgain) {
    testing::internal::CaptureStderr();
    SendButtonCommand(16);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              MISSING + "Error: empty json btn cmd string\n");
    SendButtonCommand(3);
    const std::string third = received();
    testing::internal::CaptureStderr();
    SendButtonCommand(200);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), MISSING);
    EXPECT_EQ(received(), third);
}

}  // namespace
