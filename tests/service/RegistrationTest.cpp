// korvaned's link requests: the registration of an application with the
// service's communication parameters, the opening of logical connections,
// and the limit on the number of applications.
#include <gtest/gtest.h>

#include <memory>

#include "RunningService.h"
#include "ServiceLinks.h"

TEST(ServiceRegistration, AnswersWithTheTenParametersOfItsConfiguration) {
    RunningService service({"--hb-period", "1500", "--hb-count", "4", "--hb-port", "47001", "--hb-address",
                            "127.0.0.2", "--retry", "3", "--connect-timeout", "2500", "--ack-timeout", "1200",
                            "--db-type", "7"});
    ASSERT_NE(0, service.Port());
    ApplicationLink app(service.Port());
    ASSERT_EQ(0, app.result);
    EXPECT_GT(app.IdApplication(), 0);
    EXPECT_EQ(1500, app.comm.nPeriodeHB);
    EXPECT_EQ(4, app.comm.nNbPeriodeHB);
    EXPECT_EQ(47001, app.comm.nPortHB);
    EXPECT_EQ(0, app.comm.bMulticastHB);
    EXPECT_STREQ(L"127.0.0.2", app.comm.szAdresseHB);
    EXPECT_EQ(3, app.comm.nNbRetrySend);
    EXPECT_EQ(2500, app.comm.nTimeOutConnect);
    EXPECT_EQ(1200, app.comm.nTimeOutAck);
    EXPECT_EQ(7, app.message.GetDBType());

    // A second application gets an id of its own.
    ApplicationLink other(service.Port(), L"");
    ASSERT_EQ(0, other.result);
    EXPECT_NE(app.IdApplication(), other.IdApplication());
}

TEST(ServiceRegistration, MulticastModeAnnouncesItsGroup) {
    RunningService service({"--hb-mode", "multicast", "--hb-address", "239.255.12.34"});
    ASSERT_NE(0, service.Port());
    ApplicationLink app(service.Port());
    ASSERT_EQ(0, app.result);
    EXPECT_EQ(1, app.comm.bMulticastHB);
    EXPECT_STREQ(L"239.255.12.34", app.comm.szAdresseHB);
}

TEST(ServiceRegistration, ReRegistrationKeepsTheApplicationId) {
    RunningService service;
    ASSERT_NE(0, service.Port());
    int id = 0;
    {
        ApplicationLink app(service.Port());
        ASSERT_EQ(0, app.result);
        id = app.IdApplication();
    }
    // The link was lost; the application comes back with its id on a new one.
    ClientSocket socket(service.Port());
    CParamComm comm;
    CMsgSocketClient message;
    message.Init(id, 0, socket.Get(), &comm);
    EXPECT_EQ(0, message.SendReInitApplication(L"service-tests"));
    EXPECT_EQ(id, message.GetIdApplication());
}

TEST(ServiceConnexions, OpenForARegisteredApplicationOnly) {
    RunningService service;
    ASSERT_NE(0, service.Port());
    ApplicationLink app(service.Port());
    ASSERT_EQ(0, app.result);

    ConnexionLink first(service.Port(), app.IdApplication(), 1);
    EXPECT_EQ(0, first.result);
    ConnexionLink second(service.Port(), app.IdApplication(), 2);
    EXPECT_EQ(0, second.result);
    // After a loss the connection is attached again on a new link.
    ConnexionLink again(service.Port(), app.IdApplication(), 1, true);
    EXPECT_EQ(0, again.result);

    ConnexionLink stranger(service.Port(), app.IdApplication() + 1000, 1);
    EXPECT_NE(0, stranger.result);
}

TEST(ServiceConnexions, DatabaseRequestOnAMainLinkIsAnsweredWithAnError) {
    RunningService service;
    ASSERT_NE(0, service.Port());
    ApplicationLink app(service.Port());
    ASSERT_EQ(0, app.result);
    CMsgSocketClient request;
    request.Init(app.IdApplication(), 0, app.socket.Get(), &app.comm);
    ASSERT_EQ(0, request.CreateExec(L"SELECT 1"));
    ASSERT_EQ(1, request.SendMessageW(app.socket.Get(), -1, -1));
    CMsgSocket answer;
    ASSERT_TRUE(ReceiveAnswer(app.socket.Get(), answer));
    EXPECT_EQ(KVN_EXECUTE, answer.GetFonction());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(answer, 0));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, LongAt(answer, 1));
}

TEST(ServiceLimits, RefusesTheApplicationBeyondTheLimitWithMinus54) {
    RunningService service({"--max-clients", "2"});
    ASSERT_NE(0, service.Port());
    auto first = std::make_unique<ApplicationLink>(service.Port());
    ApplicationLink second(service.Port());
    ASSERT_EQ(0, first->result);
    ASSERT_EQ(0, second.result);

    ApplicationLink third(service.Port());
    EXPECT_EQ(KVN_ERROR_MAX_CLIENT_ATTEINT, third.result);

    // A closed link frees its place, once the service has seen the close.
    first.reset();
    EXPECT_EQ(0, RegisterWithin(service.Port(), 5000));
}

TEST(ServiceLimits, CloseApplicationFreesThePlaceAtOnce) {
    RunningService service({"--max-clients", "1"});
    ASSERT_NE(0, service.Port());
    ApplicationLink first(service.Port());
    ASSERT_EQ(0, first.result);
    EXPECT_EQ(0, first.message.SendCloseApplication());
    // The link stays open: only the announcement frees the place.
    EXPECT_EQ(0, RegisterWithin(service.Port(), 5000));
}
