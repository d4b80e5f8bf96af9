#pragma once

// The event manager and the types it delivers.

#include <foundation/msg_svc/eventmgr/base_event.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/deliver_mode.hpp>
#include <foundation/msg_svc/eventmgr/event_hierarchy.hpp>
#include <foundation/msg_svc/eventmgr/event_mgr.hpp>
#include <foundation/msg_svc/eventmgr/type_information.hpp>
