#include "buttons/btn_cmds_local_sender.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <stdexcept>

#include "base/write_line.h"

namespace {

constexpr const char* CONTROL_SERVICE_ADDRESS = "127.0.0.1";
constexpr uint16_t CONTROL_SERVICE_PORT = 3426;  // UDP

char json_buffer[512];
// Never destroyed, like every static object of this file: receive threads still run at exit.
std::string& last_json = *new std::string;

using Net = ButtonCmdNetId;
using Local = BtnCmdsLocalSender::ButtonCmdLocalId;

}  // namespace

const std::map<Net, Local>& BtnCmdsLocalSender::m_buttons_map = *new std::map<Net, Local>{
    {Net::Button0, Local::Message100},  {Net::Button1, Local::Message101},
    {Net::Button2, Local::Message102},  {Net::Button3, Local::Message103},
    {Net::Button6, Local::Message106},  {Net::Button7, Local::Message107},
    {Net::Button4, Local::Message104},  {Net::Button5, Local::Message105},
    {Net::Button8, Local::Message108},  {Net::Button9, Local::Message109},
    {Net::Button10, Local::Message110}, {Net::Button11, Local::Message111},
    {Net::Button12, Local::Message112}, {Net::Button13, Local::Message113},
    {Net::Button14, Local::Message114}, {Net::Button15, Local::Message115},
};

Mutex BtnCmdsLocalSender::m_send_mutex;

std::shared_ptr<BtnCmdsLocalSender> BtnCmdsLocalSender::getInstance() {
    static const auto& instance =
        *new std::shared_ptr<BtnCmdsLocalSender>(std::make_shared<BtnCmdsLocalSender>());
    return instance;
}

BtnCmdsLocalSender::BtnCmdsLocalSender() : m_socket(socket(AF_INET, SOCK_DGRAM, 0)) {
    m_destination.sin_family = AF_INET;
    m_destination.sin_addr.s_addr = inet_addr(CONTROL_SERVICE_ADDRESS);
    m_destination.sin_port = htons(CONTROL_SERVICE_PORT);
}

BtnCmdsLocalSender::~BtnCmdsLocalSender() {
    if (m_socket > 0) close(m_socket);  // Deliberate: leaves descriptor 0 open.
}

std::string BtnCmdsLocalSender::_serializeToJson(const ButtonCmdNetId& id) {
    const auto report = [](const std::exception& error) {
        // Must not allocate: the error may be std::bad_alloc.
        write_line(STDERR_FILENO,
                   {"Error: Method: BtnCmdsLocalSender::_serializeToJson, exception thrown: ",
                    error.what()});
    };
    try {
        const auto local_id = static_cast<int>(m_buttons_map.at(id));
        std::snprintf(json_buffer, sizeof json_buffer, R"([{"msg_id":%d,"param":"On"}])", local_id);
        std::string json = json_buffer;
        last_json.swap(json);
    } catch (const std::out_of_range& error) {
        report(error);
    } catch (const std::bad_alloc& error) {
        report(error);
    }
    return last_json;
}

void BtnCmdsLocalSender::send(const ButtonCmdNetId& id) {
    const Lock lock(m_send_mutex);
    const std::string json = _serializeToJson(id);
    if (json.empty()) {
        write_line(STDERR_FILENO, "Error: empty json btn cmd string");
        return;
    }
    sendto(m_socket, json.data(), json.size(), 0, reinterpret_cast<const sockaddr*>(&m_destination),
           sizeof m_destination);
}

void SendButtonCommand(uint32_t id) {
    BtnCmdsLocalSender::getInstance()->send(static_cast<ButtonCmdNetId>(id));
}
