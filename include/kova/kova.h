/// The whole library in one include.
#ifndef KOVA_KOVA_H
#define KOVA_KOVA_H

#include <kova/base_object.h>
#include <kova/clock.h>
#include <kova/config.h>
#include <kova/flat_msg.h>
#include <kova/inet_addr.h>
#include <kova/lifecycle.h>
#include <kova/process.h>
#include <kova/socket_wrapper.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#endif
