// Sends the companion's presses to the device's control service, each as one UDP datagram to
// 127.0.0.1 port 3426: [{"msg_id":100,"param":"On"}]. Nobody answers, and nothing is reported if
// nobody listens.
//
// Deliberate: an unknown button sends the last command again, because companions in the field rely
// on this.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"

// The button numbers that travel on the link.
enum class ButtonCmdNetId : int32_t {
    Button0,
    Button1,
    Button2,
    Button3,
    Button4,
    Button5,
    Button6,
    Button7,
    Button8,
    Button9,
    Button10,
    Button11,
    Button12,
    Button13,
    Button14,
    Button15,
};

class BtnCmdsLocalSender {
  public:
    // The message ids that the control service understands.
    enum class ButtonCmdLocalId : int32_t {
        Message100 = 100,
        Message101,
        Message102,
        Message103,
        Message104,
        Message105,
        Message106,
        Message107,
        Message108,
        Message109,
        Message110,
        Message111,
        Message112,
        Message113,
        Message114,
        Message115,
    };

    // Returns the shared instance. The first call constructs it.
    static std::shared_ptr<BtnCmdsLocalSender> getInstance();

    BtnCmdsLocalSender();
    ~BtnCmdsLocalSender();
    BtnCmdsLocalSender(const BtnCmdsLocalSender&) = delete;
    BtnCmdsLocalSender& operator=(const BtnCmdsLocalSender&) = delete;

    // Sends the command of a button; logs an unknown one to standard error. Calls are serialised.
    void send(const ButtonCmdNetId& id);

  private:
    static std::string _serializeToJson(const ButtonCmdNetId& id) REQUIRES(m_send_mutex);

    static const std::map<ButtonCmdNetId, ButtonCmdLocalId>& m_buttons_map;

    static Mutex m_send_mutex;  // held for one send
    const int m_socket;
    sockaddr_in m_destination = {};
};

// Sends the command of button `id` through BtnCmdsLocalSender::getInstance().
void SendButtonCommand(uint32_t id);
