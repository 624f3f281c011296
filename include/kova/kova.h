/// The whole library in one include.
#ifndef KOVA_KOVA_H
#define KOVA_KOVA_H

#include <kova/base_object.h>
#include <kova/clock.h>
#include <kova/config.h>
#include <kova/file_list.h>
#include <kova/file_location.h>
#include <kova/file_notify.h>
#include <kova/filename.h>
#include <kova/flat_msg.h>
#include <kova/icmp_socket.h>
#include <kova/id.h>
#include <kova/inet_addr.h>
#include <kova/lifecycle.h>
#include <kova/local_mutex.h>
#include <kova/local_rwlock.h>
#include <kova/local_semaphore.h>
#include <kova/mac_addr.h>
#include <kova/message_queue.h>
#include <kova/msg_pattern.h>
#include <kova/net32.h>
#include <kova/net_interfaces.h>
#include <kova/process.h>
#include <kova/raw_socket.h>
#include <kova/request.h>
#include <kova/shared_event.h>
#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>
#include <kova/socket_wrapper.h>
#include <kova/tcp_socket.h>
#include <kova/thread.h>
#include <kova/time_value.h>
#include <kova/udp_socket.h>

#endif
