// SPDX-License-Identifier: Apache-2.0
// message.h: the monitor task's queue.
//
// The queue is the only way from other threads to the task. Senders never wait: a full queue refuses the message.
// Lock: none needed, the queue's handle is constant after atc_init.
#pragma once

#include "atc/state/records.h"

// True while there is a queue to wait on.
bool atc_msg_queue_exists();

// Posts a copy of 'message'. Returns true when the queue took it; else the sender keeps what message.data owns.
bool atc_msg_post(const atc_msg_t *message);

// Waits at most one second for the next message. Returns true when one came whole.
bool atc_msg_receive(atc_msg_t *message);
