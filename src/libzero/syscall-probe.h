#pragma once
// Whether raw system calls unknown to this libc can be tried: some sandboxes
// kill a process for an unknown call instead of failing it with ENOSYS. The
// probe (the unused call 9999) runs once per process; the answer is kept.
bool can_safely_probe_linux_syscalls();
