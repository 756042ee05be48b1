// The keep-alive: what the main thread waits for all its life.
#pragma once

// Returns once foreverThreadFlag is set, which nothing does: the process ends by a signal.
void foreverThread();
