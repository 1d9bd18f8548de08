// The classes through the running daemons, as an administrator uses them:
// znpexd and orvrmd under one state root, the znpex command line against
// them. Refusals carry the catalogue's message and a non-zero exit status;
// an acknowledged change survives kill -9 of the daemon.
#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::CliRun;
using daemonstest::Daemons;

TEST_F(Daemons, DomainSettingsAreListedCheckedAndApplied) {
    CliRun list = cli({"list", "Kor.OrvCtrl", "-a", "Frequency,Sensitivity,RemoteShell"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_NE(list.out.find("/usr/bin/ssh"), std::string::npos) << list.out;

    CliRun refused = cli({"set", "Kor.OrvCtrl", "-s", "*", "Frequency=901", "Sensitivity=30"});
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.err.find("2655-066 Heartbeat frequency value should be greater than 0 and "
                               "less than 900."),
              std::string::npos)
        << refused.err;
    CliRun status = cli({"-o", "json", "status"});
    EXPECT_NE(status.out.find("\"sensitivity\": 30"), std::string::npos)
        << "the accepted sensitivity was applied to the service:\n"
        << status.out;
}

TEST_F(Daemons, InterfacesAreDefinedListedAndUndefinedAndSurviveKill9) {
    CliRun def =
        cli({"define", "Kor.MNNetworkInterface", "Name=n1", "IPAddress=10.0.0.1", "UniversalId=5"});
    ASSERT_EQ(def.status, 0) << def.err;
    CliRun missing = cli({"define", "Kor.MNNetworkInterface", "Name=n2"});
    EXPECT_NE(missing.status, 0);
    EXPECT_NE(missing.err.find("2655-005 Attribute \"IPAddress\" must be specified"),
              std::string::npos)
        << missing.err;

    daemon_->signal(SIGKILL);
    daemon_->wait();
    startDaemon();
    CliRun list = cli({"-o", "json", "list", "Kor.MNNetworkInterface"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_NE(list.out.find("10.0.0.1"), std::string::npos) << "acknowledged, so kept:\n"
                                                            << list.out;
    CliRun undef = cli({"undefine", "Kor.MNNetworkInterface", "-s", "Name==\"n1\""});
    EXPECT_EQ(undef.status, 0) << undef.err;
    list = cli({"-o", "json", "list", "Kor.MNNetworkInterface"});
    EXPECT_EQ(list.out.find("10.0.0.1"), std::string::npos) << list.out;
}

}  // namespace
