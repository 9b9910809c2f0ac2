#include "device/driver/uart.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include <glib.h>

namespace {

struct baud_pair {
    int speed;
    speed_t code;
};

// The gateway's UARTs are driven at these rates only.
constexpr baud_pair baud_table[] = {
    {1200, B1200},   {2400, B2400},   {4800, B4800},     {9600, B9600},
    {19200, B19200}, {38400, B38400}, {57600, B57600},   {115200, B115200},
};

constexpr tcflag_t SPEED_MASK = CBAUD; // 0x100F

} // namespace

int uart_open(const char *path)
{
    if (path == nullptr)
        return -1;
    return open(path, O_RDWR | O_NOCTTY);
}

int baud_to_speed(speed_t baud)
{
    for (const auto &p : baud_table)
        if (p.code == baud)
            return p.speed;
    return 0;
}

speed_t speed_to_baud(int speed)
{
    for (const auto &p : baud_table)
        if (p.speed == speed)
            return p.code;
    // Any rate the line does not support runs at 9600, silently: that is
    // what configuration tools in the field have always relied on.
    return B9600;
}

int get_speed(const struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    return baud_to_speed(tio->c_cflag & SPEED_MASK);
}

int set_speed(struct termios *tio, int speed)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag &= ~SPEED_MASK;
    tio->c_cflag |= speed_to_baud(speed);
    return 0;
}

int set_ispeed(struct termios *tio, int speed)
{
    if (tio == nullptr)
        return -1;
    return cfsetispeed(tio, speed_to_baud(speed));
}

int set_ospeed(struct termios *tio, int speed)
{
    if (tio == nullptr)
        return -1;
    return cfsetospeed(tio, speed_to_baud(speed));
}

int get_ispeed(const struct termios *tio)
{
    return get_speed(tio);
}

int get_ospeed(const struct termios *tio)
{
    return get_speed(tio);
}

int get_bsize(const struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    switch (tio->c_cflag & CSIZE) {
    case CS6: return 6;
    case CS7: return 7;
    case CS8: return 8;
    default: return 5;
    }
}

int set_bsize(struct termios *tio, int bits)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag &= ~CSIZE;
    switch (bits) {
    case 6: tio->c_cflag |= CS6; break;
    case 7: tio->c_cflag |= CS7; break;
    case 8: tio->c_cflag |= CS8; break;
    default: break; // CS5
    }
    return 0;
}

int get_parity(const struct termios *tio)
{
    if (tio == nullptr)
        return 255;
    if ((tio->c_cflag & PARENB) == 0)
        return 'N';
    return (tio->c_cflag & PARODD) != 0 ? 'O' : 'E';
}

int set_parity(struct termios *tio, char parity)
{
    if (tio == nullptr)
        return -1;
    switch (parity) {
    case 'E':
    case 'e':
        tio->c_cflag |= PARENB;
        tio->c_cflag &= ~PARODD;
        break;
    case 'N':
    case 'n':
        tio->c_cflag &= ~PARENB; // PARODD is left as it was
        break;
    case 'O':
    case 'o':
        tio->c_cflag |= PARENB | PARODD;
        break;
    default: break;
    }
    return 0;
}

int get_stop(const struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    return (tio->c_cflag & CSTOPB) != 0 ? 2 : 1;
}

int set_stop(struct termios *tio, int stop)
{
    if (tio == nullptr)
        return -1;
    // Only an explicit 1 means one stop bit; 0 and anything else mean two.
    if (stop == 1)
        tio->c_cflag &= ~CSTOPB;
    else
        tio->c_cflag |= CSTOPB;
    return 0;
}

int enable_read(struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag |= CREAD;
    return 0;
}

int disable_read(struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag &= ~CREAD;
    return 0;
}

int enable_flow_control(struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag |= CRTSCTS;
    return 0;
}

int disable_flow_control(struct termios *tio)
{
    if (tio == nullptr)
        return -1;
    tio->c_cflag &= ~CRTSCTS;
    return 0;
}

int get_termios(int fd, struct termios *tio)
{
    if (fd == -1 || tio == nullptr)
        return -1;
    return tcgetattr(fd, tio);
}

int set_termios(int fd, const struct termios *tio)
{
    if (fd == -1 || tio == nullptr)
        return -1;
    return tcsetattr(fd, TCSANOW, tio);
}

void show_termios(const struct termios *tio)
{
    if (tio == nullptr)
        return;
    g_print("speed=%d\n", get_speed(tio));
    g_print("parity=%c\n", get_parity(tio));
    g_print("bsize=%d\n", get_bsize(tio));
    g_print("stop=%d\n", get_stop(tio));
}

struct termios uart_build_termios(int speed, char parity, int bits, int stop)
{
    // Everything but the control flags stays zero: a raw line, no echo, no
    // canonical editing, no translation, VMIN = VTIME = 0. CLOCAL stays
    // clear, as the gateway's ports have always been run.
    struct termios tio {};
    set_speed(&tio, speed);
    set_parity(&tio, parity);
    set_bsize(&tio, bits);
    set_stop(&tio, stop);
    enable_read(&tio);
    disable_flow_control(&tio);
    return tio;
}

int uart_config(int fd, int speed, char parity, int bits, int stop)
{
    if (fd < 0)
        return -1;
    const struct termios tio = uart_build_termios(speed, parity, bits, stop);
    if (set_termios(fd, &tio) != 0)
        return -6;
    return 0;
}

int uart_read(int fd, void *buf, int len)
{
    if (fd < 0 || buf == nullptr || len < 1)
        return -1;
    return static_cast<int>(read(fd, buf, static_cast<size_t>(len)));
}

int uart_write(int fd, const void *buf, int len)
{
    if (fd < 0 || buf == nullptr || len < 1)
        return -1;
    return static_cast<int>(write(fd, buf, static_cast<size_t>(len)));
}

int uart_close(int fd)
{
    puts("uart close");
    return close(fd);
}

char uart_parity_char(uint32_t parity_bit)
{
    switch (parity_bit) {
    case 0: return 'n';
    case 1: return 'e';
    case 2: return 'o';
    default: return 0;
    }
}
