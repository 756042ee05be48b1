#include "net/network_controller.h"

#include <gtest/gtest.h>

#include <mutex>

#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;

const Bytes IDENTITY = bytes("who I am");

// A worker that records what it receives. Each byte is a message: 'c' makes the connection the
// link, 'a' requests an answer, and 't' makes the worker throw.
class Worker : public NetworkController::NetworkWorker {
  public:
    void OnDataReceived(const unsigned char* data, uint64_t length,
                        const std::function<void()>& signal, bool deliver_all) override {
        EXPECT_EQ(deliver_all, !signal);
        {
            const std::lock_guard lock(m_mutex);
            (deliver_all ? m_seen.link : m_seen.candidate).append(data, data + length);
            (deliver_all ? m_seen.link_ends : m_seen.candidate_ends) += length == 0;
        }
        for (uint64_t i = 0; i < length; ++i) {
            if (data[i] == 'c' && signal) signal();
            if (data[i] == 'a') send(bytes("answer"));
            if (data[i] == 't') throw std::runtime_error("worker");
        }
    }
    void SetController(const std::shared_ptr<NetworkController>& controller) override {
        const std::lock_guard lock(m_mutex);
        m_controller = controller;
    }
    void SetMessageHandler(
        const std::function<void(uint16_t, std::vector<unsigned char>)>&) override {}
    void SendIdentity() override {}
    void SendData(const unsigned char*, uint64_t) override {}
    void SendImage(const uint16_t*, uint16_t, uint16_t) override {}
    Bytes GetIdentityFrame() override { return IDENTITY; }

    void send(const Bytes& data) {
        std::shared_ptr<NetworkController> controller;
        {
            const std::lock_guard lock(m_mutex);
            controller = m_controller.lock();
        }
        if (controller != nullptr) controller->send(data.data(), data.size());
    }

    struct Seen {
        std::string candidate;  // bytes from connections that are not the link
        std::string link;
        int candidate_ends = 0;
        int link_ends = 0;
    };
    Seen seen() {
        const std::lock_guard lock(m_mutex);
        return m_seen;
    }

  private:
    std::mutex m_mutex;
    std::weak_ptr<NetworkController> m_controller;
    Seen m_seen;
};

class Controller : public testing::Test {
  protected:
    Controller() { m_worker->SetController(m_controller); }

    // Links the companion. This succeeds only if the previous link has ended.
    Socket link() {
        const size_t before = m_worker->seen().link.size();
        return m_companion.link(bytes("c"),
                                [=, this] { return m_worker->seen().link.size() > before; });
    }

    LastThreadsEnd m_last_threads_end;
    RawCompanion m_companion;
    std::shared_ptr<Worker> m_worker = std::make_shared<Worker>();
    std::shared_ptr<NetworkController> m_controller = std::make_shared<NetworkController>(m_worker);
};

TEST_F(Controller, ShowsACandidateToTheWorkerAndItsAnswerToTheCandidate) {
    EXPECT_EQ(m_companion.hear(), IDENTITY);
    EXPECT_EQ(m_companion.device().sin_addr.s_addr, inet_addr("10.77.0.1"));
    m_worker->send(bytes("to nobody"));
    Bytes answer;
    while (answer.empty()) {
        const Socket candidate = m_companion.connection();
        try {
            candidate.write(bytes("a"));
            answer = candidate.read_some(6);
        } catch (const std::runtime_error&) {  // the device has closed this candidate
        }
    }
    EXPECT_EQ(answer, bytes("answer"));
    EXPECT_TRUE(wait_until([&] {
        m_companion.connection();
        return m_worker->seen().candidate_ends > 0;
    }));
    EXPECT_EQ(m_worker->seen().link, "");
    m_worker->send(bytes("to nobody"));
}

TEST_F(Controller, LinksTheOneThatTheWorkerAccepts) {
    testing::internal::CaptureStdout();
    const Socket peer = link();
    EXPECT_EQ(testing::internal::GetCapturedStdout().substr(0, 10), "connected\n");
    m_worker->send(bytes("frame"));
    EXPECT_EQ(peer.read(5), bytes("frame"));
    peer.write(bytes("a"));
    EXPECT_EQ(peer.read(6), bytes("answer"));
}

TEST_F(Controller, DropsTheOthersAndTheirEndsToo) {
    Socket peer;
    Socket other;
    while (m_worker->seen().link.empty()) {
        m_companion.hear();
        m_companion.answer();
        m_companion.answer();
        peer = m_companion.accept();
        other = m_companion.accept();
        const Chatter chatter(peer, bytes("c"));
        wait_until([&] { return !m_worker->seen().link.empty() || peer.readable(10ms); });
    }
    const Chatter chatter(peer, bytes("."));
    EXPECT_TRUE(other.ended());  // the device drops the silent connection
    m_worker->send(bytes("still linked"));
    EXPECT_EQ(peer.read(12), bytes("still linked"));
    EXPECT_EQ(m_worker->seen().link_ends, 0);
}

TEST_F(Controller, SearchesAgainWhenTheLinkEnds) {
    link().close();
    link().reset();
    {
        const Socket silent = link();
        EXPECT_TRUE(silent.ended());
    }
    const Socket peer = link();
    peer.write(bytes("t"));  // the worker throws, which ends the receive thread
    EXPECT_TRUE(peer.ended());
    link();
    EXPECT_EQ(m_worker->seen().link_ends, 0);  // no report of the link's end
}

TEST_F(Controller, CandidateWhoseExaminationFailedIsLetGo) {
    const Socket candidate =
        m_companion.link(bytes("t"), [&] { return !m_worker->seen().candidate.empty(); });
    EXPECT_TRUE(candidate.ended());
    m_companion.hear();          // by now, the candidate's unit is destroyed
    m_worker->send(bytes("x"));  // must not use the destroyed unit
    link();
}

}  // namespace
