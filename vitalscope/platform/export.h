// Marks what the two shared libraries export; everything else stays hidden.
#pragma once

#define QBV_EXPORT __attribute__((visibility("default")))
