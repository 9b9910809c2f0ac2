// Mitsubishi Q/QnA over TCP with MC protocol 3E binary frames, one point
// per request.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/mc_3e_codec.h"
#include "device/plc/plc_ethernet.h"

#define Q3E_LOG(fmt, ...) g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%d " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

struct qna3e_priv {
    int fd; // -1 while closed
};

constexpr int ANSWER_WAIT_MS = 1000;
// A lost route leaves a blocking connect waiting for minutes; a PLC that
// does not take the connection within this costs only the device's cycle.
constexpr int CONNECT_WAIT_MS = 3000;
constexpr size_t BUF_SIZE = 1024;

void close_socket(qna3e_priv *priv)
{
    if (priv->fd >= 0)
        close(priv->fd);
    priv->fd = -1;
}

// One recv for the operation `func`; an error or the peer's close is logged
// and closes the socket, so that the next open connects anew. The bytes
// received, or -1.
ssize_t recv_or_close(qna3e_priv *priv, uint8_t *buf, size_t size, const char *func)
{
    const ssize_t n = recv(priv->fd, buf, size, 0);
    if (n < 0)
        g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%d recv:%s\n", func, __LINE__, strerror(errno));
    else if (n == 0)
        g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "%s:%d recv = 0\n", func, __LINE__);
    if (n <= 0) {
        close_socket(priv);
        return -1;
    }
    return n;
}

// 1 readable, 0 time-out, -1 error (errno set).
int wait_readable(int fd, int timeout_ms)
{
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, timeout_ms);
    return r < 0 ? -1 : (r == 0 ? 0 : 1);
}

// connect() bounded by CONNECT_WAIT_MS; the socket is blocking again after.
int connect_bounded(int fd, const sockaddr_in &a)
{
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int r = connect(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a);
    if (r != 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        const int n = poll(&p, 1, CONNECT_WAIT_MS);
        int err = n == 0 ? ETIMEDOUT : errno;
        if (n > 0) {
            socklen_t len = sizeof err;
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
                err = errno;
        }
        r = err == 0 ? 0 : -1;
        errno = err;
    }
    const int saved = errno;
    fcntl(fd, F_SETFL, flags);
    errno = saved;
    return r;
}

int64_t ms_left(int64_t deadline_us)
{
    const int64_t left = (deadline_us - g_get_monotonic_time() + 999) / 1000;
    return left > 0 ? left : 0;
}

} // namespace

extern driver mitsubishi_QnA_3E_drv;

static int mitsubishi_QnA_3E_probe()
{
    g_print("<%s> called\n", __func__);
    if (mitsubishi_QnA_3E_drv.priv != nullptr) {
        Q3E_LOG("mitsubishi_QnA_3E_drv.drv.priv != NULL\n");
        return 0;
    }
    auto *priv = g_try_new0(qna3e_priv, 1);
    if (priv == nullptr) {
        Q3E_LOG("drvdata = NULL\n");
        return -1;
    }
    priv->fd = -1;
    mitsubishi_QnA_3E_drv.priv = priv;
    return 0;
}

static int mitsubishi_QnA_3E_remove()
{
    g_print("<%s> called\n", __func__);
    if (mitsubishi_QnA_3E_drv.priv == nullptr) {
        Q3E_LOG("mitsubishi_QnA_3E_drv.drv.priv = NULL\n");
        return 0;
    }
    g_free(mitsubishi_QnA_3E_drv.priv);
    mitsubishi_QnA_3E_drv.priv = nullptr;
    return 0;
}

int mitsubishi_QnA_3E_init()
{
    return driver_common_init(mitsubishi_QnA_3E_drv, __func__);
}

int mitsubishi_QnA_3E_deinit()
{
    return driver_common_deinit(mitsubishi_QnA_3E_drv, __func__);
}

static int mitsubishi_QnA_3E_open(plc_device *dev)
{
    g_print("<%s> called\n", __func__);
    auto *priv = static_cast<qna3e_priv *>(mitsubishi_QnA_3E_drv.priv);
    if (priv == nullptr) {
        Q3E_LOG("drvdata = NULL\n");
        return -1;
    }
    const ethernet_device *eth = as_ethernet(dev);
    if (eth == nullptr || dev->dev_comm_type != DEV_COMM_ETHERNET)
        return -1; // a serial record bound by maker and model has no address
    g_print("%s,dev_id = %d\n", __func__, dev->dev_id);
    g_print("%s,ip = %s\n", __func__, eth->ip_addr.c_str());
    g_print("%s,port = %d\n", __func__, eth->port);
    if (priv->fd < 0) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            // Reported as success: the read that follows fails at its send.
            Q3E_LOG("socket:%s\n", strerror(errno));
            return 0;
        }
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(eth->port));
        inet_aton(eth->ip_addr.c_str(), &a.sin_addr);
        g_print("%s,connecting ... \n", __func__);
        fflush(stdout);
        if (connect_bounded(fd, a) != 0) {
            Q3E_LOG("connect:%s\n", strerror(errno));
            close(fd);
            priv->fd = -1;
            return -1;
        }
        priv->fd = fd;
        g_print("connect successful\n");
    }
    // Drop whatever arrived since the last exchange.
    for (;;) {
        const int r = wait_readable(priv->fd, 0);
        if (r < 0) {
            Q3E_LOG("select:%s\n", strerror(errno));
            return -1;
        }
        if (r == 0)
            return 0;
        uint8_t stale[BUF_SIZE];
        const ssize_t n = recv_or_close(priv, stale, sizeof stale, __func__);
        if (n < 0)
            return -1;
        Q3E_LOG("recv = %d\n", static_cast<int>(n));
    }
}

static int mitsubishi_QnA_3E_release(plc_device *)
{
    g_print("<%s> called\n", __func__);
    auto *priv = static_cast<qna3e_priv *>(mitsubishi_QnA_3E_drv.priv);
    if (priv == nullptr) {
        Q3E_LOG("drvdata = NULL\n");
        return -1;
    }
    close_socket(priv);
    return 0;
}

static int mitsubishi_QnA_3E_read(plc_device *dev, const char *addr, uint32_t data_type,
                                  char *value)
{
    g_print("<%s> called\n", __func__);
    auto *priv = static_cast<qna3e_priv *>(mitsubishi_QnA_3E_drv.priv);
    if (priv == nullptr) {
        Q3E_LOG("drvdata = NULL\n");
        return -1;
    }
    snprintf(value, NODE_VALUE_SIZE, "%s", "read err");
    g_print("dev_id = %d\n", dev->dev_id);
    g_print("addrin = %s\n", addr);
    g_print("node_data_type = %d\n", data_type);
    MC_bulk_read_msg msg;
    int built;
    if (data_type == 1) {
        built = build_MC_bulk_read_bit_msg_2(&msg, addr);
    } else if (data_type == 5) {
        built = build_MC_bulk_read_word_msg_2(&msg, addr);
    } else {
        Q3E_LOG("dt err = %d\n", data_type);
        return -1;
    }
    if (built != 0)
        return -1;
    uint8_t request[BUF_SIZE] = {};
    const int len = output_hex_MC_bulk_read_msg(&msg, request, sizeof request);
    if (len < 0)
        return -1;
    if (priv->fd < 0)
        errno = EBADF; // the socket could not even be created in open
    const ssize_t sent = priv->fd < 0 ? -1 : send(priv->fd, request, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (sent < 0) {
        Q3E_LOG("send:%s\n", strerror(errno));
        close_socket(priv);
        return -1;
    }
    g_print("send num = %d\n", static_cast<int>(sent));
    print_hex(request, static_cast<size_t>(len));
    // The answer may come in several segments: it is gathered until it is
    // as long as its header says, all within the one answer wait.
    uint8_t response[BUF_SIZE] = {};
    size_t n = 0;
    size_t claimed = 0;
    const int64_t deadline = g_get_monotonic_time() + int64_t{ANSWER_WAIT_MS} * 1000;
    do {
        const int r = wait_readable(priv->fd, static_cast<int>(ms_left(deadline)));
        if (r < 0) {
            Q3E_LOG("select:%s\n", strerror(errno));
            return -1;
        }
        if (r == 0) {
            g_print("select = 0\n");
            close_socket(priv);
            return -1;
        }
        const ssize_t got = recv_or_close(priv, response + n, sizeof response - n, __func__);
        if (got < 0)
            return -1;
        n += static_cast<size_t>(got);
        // An answer claiming more than the buffer is no one-point answer:
        // the check below refuses it without waiting for the rest.
        claimed = MC_response_claimed_size(response, n);
    } while (claimed == 0 || (claimed > n && claimed <= sizeof response));
    g_print("recv num = %d\n", static_cast<int>(n));
    print_hex(response, n);
    if (analyze_MC_response(response, n, &msg) != 0)
        return -1;
    if (msg.soft_component_type == E_BIT_SOFT_COMPONENT) {
        snprintf(value, NODE_VALUE_SIZE, "%c", get_bit_soft_component_value(&msg));
    } else if (msg.soft_component_type == E_WORD_SOFT_COMPONENT) {
        snprintf(value, NODE_VALUE_SIZE, "%d", get_word_soft_component_value(&msg));
    } else {
        Q3E_LOG("soft_component_type err = %d\n", msg.soft_component_type);
        return -1;
    }
    g_print("%s = %s\n", addr, value);
    return 0;
}


DRIVER_LOG_ONLY_OPS(mitsubishi_QnA_3E)

driver mitsubishi_QnA_3E_drv = {"mitsubishi_QnA_3E",        1,
                                DEV_MFG_MITSUBISHI,         DEV_TYPE_QNA_3E,
                                nullptr,                    mitsubishi_QnA_3E_probe,
                                mitsubishi_QnA_3E_remove,   mitsubishi_QnA_3E_read,
                                mitsubishi_QnA_3E_write,    mitsubishi_QnA_3E_open,
                                mitsubishi_QnA_3E_release,  mitsubishi_QnA_3E_update_params,
                                mitsubishi_QnA_3E_save_config};
