#include "tcp_client.h"

#include <gmock/gmock.h>
TEST(TCPClient, SendingWithoutAConnectionFails)
{
    TCPClient client("127.0.0.1", 1);
    EXPECT_EQ(client.send("x")->number, ENOTCONN);
}
