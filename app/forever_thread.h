// The idle thread, which the main thread joins.
#pragma once

// Returns when foreverThreadFlag is set. Nothing sets this flag: a signal ends the process.
void foreverThread();
