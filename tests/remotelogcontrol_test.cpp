#include "ecu/tavi/logging/remotelogcontrol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "support/client_fixture.h"

namespace ecu::tavi {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const char* const kApp = "rlc-app";

// The modules of a reply as "name=0|1" in reply order.
std::string modules_of(const pb::LogConfig& reply) {
    std::string text;
    for (const auto& entry : reply.modules()) {
        text += (text.empty() ? "" : " ") + entry.name() + "=" + (entry.enabled() ? "1" : "0");
    }
    return text;
}

std::vector<uint8_t> framed(const pb::LogConfig& request) {
    return com::PbInternalMessageAdapter<pb::LogConfig>(com::PROTOCOL_LOG_CONFIG)
        .serialize(request)
        .value()
        .get_data();
}

pb::LogConfig::LogModule* add_switch(pb::LogConfig& request, const std::string& name,
                                     bool enabled) {
    auto* entry = request.add_modules();
    entry->set_name(name);
    entry->set_enabled(enabled);
    return entry;
}

// The application's transport with its control; the peer plays the tool.
class RemoteLogControlTest : public test::ClientTest {
protected:
    RemoteLogControlTest() : ClientTest(kApp) {}
    void make_client() override {
        logging::_internal::reset_modules();
        ASSERT_TRUE(m_peer->subscribe("app/+/log/config", 1));
        m_control = logging::create_remote_log_control(m_transport);
    }
    void drop_client() override { m_control.reset(); }

    void send(const std::vector<uint8_t>& payload, const std::string& app = kApp) {
        ASSERT_EQ(0, m_peer->publish("app/" + app + "/log/configure", payload, 1));
    }
    size_t replies(const std::string& app = kApp) {
        return m_peer->count("app/" + app + "/log/config");
    }

    // Sends the request and returns the reply it causes.
    pb::LogConfig exchange(const pb::LogConfig& request, const std::string& app = kApp) {
        const size_t before = replies(app);
        send(framed(request), app);
        if (!m_peer->wait_for("app/" + app + "/log/config", before + 1)) {
            ADD_FAILURE() << "no reply";
            return {};
        }
        return parse<pb::LogConfig>(m_peer->received().back().payload);
    }

    std::unique_ptr<logging::RemoteLogControl> m_control;
};

TEST_F(RemoteLogControlTest, EmptyRequestIsAnsweredWithTheWholeTreeAndChangesNothing) {
    logging::module("tavi.z");
    logging::module("tavi.com.acl");
    logging::module("tavi.a");
    logging::enable("tavi.com", false);
    logging::module("Zeta");

    const auto reply = exchange(pb::LogConfig());

    // The reply shows the unchanged settings. Root first, each module before its children,
    // children in byte-wise name order; the control enabled its own module.
    // reset_modules() left the root disabled.
    EXPECT_EQ(pb::LogConfig::STDOUT, reply.mode());
    EXPECT_EQ(pb::LogConfig::DEBUG, reply.level());
    EXPECT_EQ(
        "root=0 Zeta=0 rlc-app=0 rlc-app.log=1 tavi=0 tavi.a=0 tavi.com=1 tavi.com.acl=0 "
        "tavi.z=0",
        modules_of(reply));
    expect_logged({"[DEBUG]: [rlc-app.log] Remote Log Control initialized for rlc-app\n",
                   "[DEBUG]: [rlc-app.log] Received request for log configuration\n"});
}

TEST_F(RemoteLogControlTest, ModeLevelAndModuleSwitchesTakeEffect) {
    logging::module("tavi.com.acl");
    logging::module("tavi.diag.uds");
    logging::enable("tavi", true);

    pb::LogConfig request;
    request.set_mode(pb::LogConfig::STDERR);
    request.set_level(pb::LogConfig::INFO);
    add_switch(request, "tavi.com", false)->set_recursive(true);
    add_switch(request, "tavi.diag", false);  // not recursive: tavi.diag.uds stays on
    add_switch(request, "new.module", true);  // created on the way, only "module" enabled
    auto reply = exchange(request);

    // The reply shows the settings after the change.
    EXPECT_EQ(logging::STDERR, logging::get_log_mode());
    EXPECT_EQ(6, logging::get_log_level());
    EXPECT_EQ(pb::LogConfig::INFO, reply.level());
    EXPECT_EQ(
        "root=0 new=0 new.module=1 rlc-app=0 rlc-app.log=1 tavi=1 tavi.com=0 tavi.com.acl=0 "
        "tavi.diag=0 tavi.diag.uds=1",
        modules_of(reply));
    expect_logged({"[NOTICE]: [rlc-app.log] Set logmode to '2'\n",
                   "[NOTICE]: [rlc-app.log] Set loglevel to '6'\n",
                   "[NOTICE]: [rlc-app.log] Disable logging for 'tavi.com'\n",
                   "[NOTICE]: [rlc-app.log] Enable logging for 'new.module'\n"});
    EXPECT_THAT(log(), Not(HasSubstr("Received request for log configuration")));
}

TEST_F(RemoteLogControlTest, AllSwitchesEveryModuleAndEntriesApplyInOrder) {
    logging::module("tavi.com.acl");

    pb::LogConfig request;
    add_switch(request, "all", true);
    EXPECT_EQ("root=1 rlc-app=1 rlc-app.log=1 tavi=1 tavi.com=1 tavi.com.acl=1",
              modules_of(exchange(request)));

    request.Clear();
    add_switch(request, "all", false);
    add_switch(request, "tavi.com", true)->set_recursive(true);
    EXPECT_EQ("root=0 rlc-app=0 rlc-app.log=0 tavi=0 tavi.com=1 tavi.com.acl=1",
              modules_of(exchange(request)));
    // "all" is not a module of its own.
    EXPECT_EQ(0u, logging::module("root")->children().count("all"));

    expect_logged({"[NOTICE]: [rlc-app.log] Enable logging for all modules\n",
                   "[NOTICE]: [rlc-app.log] Disable logging for all modules\n"});
    // From then on the control's own module is disabled, and its NOTICE lines with it.
    EXPECT_THAT(log(), Not(HasSubstr("Enable logging for 'tavi.com'")));
}

TEST_F(RemoteLogControlTest, InvalidEntryIsSkippedAndTheRestApplies) {
    pb::LogConfig request;
    request.add_modules()->set_name("missing.enabled");
    request.add_modules()->set_enabled(true);
    add_switch(request, "valid", true);
    const auto reply = exchange(request);

    EXPECT_EQ("root=0 rlc-app=0 rlc-app.log=1 valid=1", modules_of(reply));
    expect_logged({"[NOTICE]: [rlc-app.log] Enable logging for 'valid'\n"});
    const std::string text = log();
    const std::string invalid =
        "[ERROR]: [rlc-app.log] Invalid log module configuration received\n";
    EXPECT_NE(text.find(invalid, text.find(invalid) + 1), std::string::npos) << "one line each";
}

TEST_F(RemoteLogControlTest, UndecodableRequestsAndADestroyedControlGetNoReply) {
    const size_t before = replies();
    send(std::vector<uint8_t>(30, 0xff));
    EXPECT_TRUE(logged(
        "[ERROR]: [rlc-app.log] Unable to deserialize data for topic app/rlc-app/log/configure\n"));
    // The control still answers the next good request.
    EXPECT_EQ(pb::LogConfig::DEBUG, exchange(pb::LogConfig()).level());

    m_control.reset();
    send(framed(pb::LogConfig()));
    // Proves that no reply arrives; a fixed wait is the only way to see an absence.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(before + 1, replies());
}

// A small request cannot grow the tree without bound: an 8 KB name of 4000 segments, and
// more new names than the tree has room for.
TEST_F(RemoteLogControlTest, DeepNamesAndATreeFullOfModulesAreRefused) {
    std::string deep = "x";
    for (int i = 1; i < 4000; ++i) {
        deep += ".x";
    }
    pb::LogConfig request;
    add_switch(request, deep, true)->set_recursive(true);
    for (int i = 0; i < 1100; ++i) {
        add_switch(request, "n" + std::to_string(i), true);
    }
    const auto reply = exchange(request);

    // The tree already held the root and the control's two modules.
    ASSERT_EQ(reply.modules_size(), 1024);
    EXPECT_EQ(reply.modules(0).name(), "root");
    EXPECT_EQ(reply.modules(1021).name(), "n999");  // byte-wise order: n1020 comes earlier
    EXPECT_EQ(reply.modules(1023).name(), "rlc-app.log");
    expect_logged(
        {"[ERROR]: Log module name of 4000 segments refused: names are limited to 32 "
         "segments\n",
         "[ERROR]: Log module 'n1021' refused: the tree is limited to 1024 modules\n"});
}

// The control that create_client attaches lives exactly as long as the transport it returns.
TEST_F(RemoteLogControlTest, FactoryAttachesControlForTheTransportsLifetime) {
    auto config = test::app_config(m_broker.client_config("rlc-factory"));
    auto client = com::create_client(config, com::MQTT);
    ASSERT_TRUE(test::start_app(*client));
    EXPECT_THAT(modules_of(exchange(pb::LogConfig(), "rlc-factory")),
                HasSubstr("rlc-factory.log=1"));

    client->stop();
    std::weak_ptr<com::ITransportClient> gone = client;
    client.reset();
    EXPECT_TRUE(gone.expired());
}

}  // namespace
}  // namespace ecu::tavi
