#pragma once

/// Marks what vex_core.so shows. Everything else in it is hidden.
#define VEX_CORE_API __attribute__((visibility("default")))
