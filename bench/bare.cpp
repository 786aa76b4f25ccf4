// SPDX-License-Identifier: Apache-2.0
// A program that uses the C++ standard library and waits: what a process weighs before ours is in it.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

int main()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::cout << "ready" << std::endl;
    for (;;) {
        pause();
    }
}
