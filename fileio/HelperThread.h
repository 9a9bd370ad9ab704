#pragma once

#include <functional>
#include <thread>

// Starts a thread that never takes an interruption (SIGINT, SIGTERM, SIGHUP): the thread that
// started it does, and so the one that removes a half-written file is never a helper that is about
// to finish, or one that a sanitizer's runtime holds the signal for until it next calls out.
std::thread StartHelperThread(std::function<void()> work);
