#pragma once

#include <atomic>

class VrrpWorker;

/// Connects the library's log and event hooks to the process: records go to the logger "default"
/// with the call site of the library, changed domains to the VRRP worker. Before any library object
/// exists.
void install_library_hooks();

/// Whom changed domains are told to; null for nobody.
void set_domain_listener(VrrpWorker* listener) noexcept;
