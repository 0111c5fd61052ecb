// kr: the runtime library of the platform's daemons. Include this one header
// to get every public part of it.
#pragma once

#include "kr/base/ipaddr.h"
#include "kr/base/macaddr.h"
#include "kr/bus/handler.h"
#include "kr/bus/loader_protocol.h"
#include "kr/bus/looper.h"
#include "kr/loop/child.h"
#include "kr/loop/clock.h"
#include "kr/loop/crash.h"
#include "kr/loop/function.h"
#include "kr/loop/runner.h"
#include "kr/loop/thinrunner.h"
#include "kr/message/dump.h"
#include "kr/message/encoding.h"
#include "kr/message/message.h"
#include "kr/message/policies.h"
#include "kr/message/protocol.h"
#include "kr/message/siphash.h"
#include "kr/message/vocabulary.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/unique_fd.h"
