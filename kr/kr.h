// kr: the runtime library of the platform's daemons. Include this one header
// to get every public part of it.
#pragma once

#include "kr/base/ipaddr.h"
#include "kr/base/macaddr.h"
#include "kr/message/dump.h"
#include "kr/message/encoding.h"
#include "kr/message/message.h"
#include "kr/message/policies.h"
#include "kr/message/protocol.h"
#include "kr/message/siphash.h"
#include "kr/message/vocabulary.h"
