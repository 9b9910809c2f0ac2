// The Snap7 library as built from its npm sources: its server answers its
// client on loopback, on a port of our choosing (no root needed).
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <snap7.h>

namespace {

uint16_t free_port()
{
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

} // namespace

TEST(Snap7, ServerAndClientTalkOnLoopback)
{
    uint16_t port = free_port();
    S7Object server = Srv_Create();
    ASSERT_EQ(Srv_SetParam(server, p_u16_LocalPort, &port), 0);
    uint8_t db1[16] = {0x12, 0x34, 0x3f, 0xc0, 0x00, 0x00};
    ASSERT_EQ(Srv_RegisterArea(server, srvAreaDB, 1, db1, sizeof db1), 0);
    ASSERT_EQ(Srv_StartTo(server, "127.0.0.1"), 0);

    S7Object client = Cli_Create();
    ASSERT_EQ(Cli_SetParam(client, p_u16_RemotePort, &port), 0);
    ASSERT_EQ(Cli_ConnectTo(client, "127.0.0.1", 0, 1), 0);
    uint8_t buf[4] = {};
    EXPECT_EQ(Cli_DBRead(client, 1, 0, 4, buf), 0);
    EXPECT_EQ(buf[0], 0x12);
    EXPECT_EQ(buf[3], 0xc0);
    EXPECT_NE(Cli_DBRead(client, 2, 0, 4, buf), 0) << "an unregistered DB is refused";
    Cli_Disconnect(client);
    Cli_Destroy(&client);

    Srv_Stop(server);
    S7Object again = Cli_Create();
    Cli_SetParam(again, p_u16_RemotePort, &port);
    EXPECT_NE(Cli_ConnectTo(again, "127.0.0.1", 0, 1), 0) << "a stopped server refuses";
    Cli_Destroy(&again);
    Srv_Destroy(&server);
}
