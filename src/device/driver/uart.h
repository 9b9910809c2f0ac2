// Serial port access for the serial PLC drivers: raw-mode line settings
// built on a zeroed termios record, and thin read/write/close wrappers.
#pragma once

#include <termios.h>

#include <cstddef>
#include <cstdint>

int uart_open(const char *path);
int uart_config(int fd, int speed, char parity, int bits, int stop);
int uart_read(int fd, void *buf, int len);
int uart_write(int fd, const void *buf, int len);
int uart_close(int fd);

int get_termios(int fd, struct termios *tio);
int set_termios(int fd, const struct termios *tio);
void show_termios(const struct termios *tio);

int baud_to_speed(speed_t baud);
speed_t speed_to_baud(int speed);
int get_speed(const struct termios *tio);
int set_speed(struct termios *tio, int speed);
int set_ispeed(struct termios *tio, int speed);
int set_ospeed(struct termios *tio, int speed);
int get_ispeed(const struct termios *tio);
int get_ospeed(const struct termios *tio);
int get_bsize(const struct termios *tio);
int set_bsize(struct termios *tio, int bits);
int get_parity(const struct termios *tio);
int set_parity(struct termios *tio, char parity);
int get_stop(const struct termios *tio);
int set_stop(struct termios *tio, int stop);
int enable_read(struct termios *tio);
int disable_read(struct termios *tio);
int enable_flow_control(struct termios *tio);
int disable_flow_control(struct termios *tio);

// The line settings uart_config applies for these arguments, without a
// port: lets the drivers' settings be checked where a pseudo-terminal
// would not keep them (it drops parity).
struct termios uart_build_termios(int speed, char parity, int bits, int stop);

// Parity character the drivers pass to uart_config: 0 'n', 1 'e', 2 'o',
// anything else the character code 0 (parity off).
char uart_parity_char(uint32_t parity_bit);
