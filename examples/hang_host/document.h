// Work that keeps the main thread busy for too long, by functions whose names tell in a call stack.
#pragma once

extern "C" {

// Each calls the next; the last one waits.
__attribute__((visibility("default"))) void openDocument(int seconds);
__attribute__((visibility("default"))) int loadSpellingDictionary(int seconds);
__attribute__((visibility("default"))) int waitForSlowDisk(int seconds);
}
