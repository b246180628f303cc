#pragma once

// Marks what a module shows to others; everything else in it is hidden.
#define PL_EXPORT __attribute__((visibility("default")))
