#pragma once
// kl/export.h: marks what the shared library offers; everything else stays inside it.

#define KL_API __attribute__((visibility("default")))
