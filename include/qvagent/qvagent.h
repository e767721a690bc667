/* libqvagent: the whole interface of the agent for services in C and C++. */
#ifndef QVAGENT_QVAGENT_H
#define QVAGENT_QVAGENT_H

#include "qv_agent_types.h"
#include "qv_agent_init.h"
#include "qv_agent_memory.h"
#include "qv_agent_identity.h"
#include "qv_agent_event.h"
#include "qv_agent_log.h"
#include "qv_agent_blackbox.h"
#include "qv_agent_bootlog.h"
#include "qv_agent_kpi.h"
#include "qv_agent_wire.h"
#include "qv_agent_transport.h"

#endif
