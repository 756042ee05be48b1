// A plugin for qemu's user mode. For each pair of marks (bench/mark.h) that a program sets, writes
// to standard error how many instructions it executed between them. Debian does not package the
// header of qemu's plugin interface (version 1), so this file declares what it uses.
#include <cstdint>
#include <cstdio>

#include "bench/mark.h"

extern "C" {

struct qemu_plugin_tb;
using qemu_plugin_id_t = uint64_t;
using TranslationCallback = void (*)(qemu_plugin_id_t, qemu_plugin_tb*);
using SyscallCallback = void (*)(qemu_plugin_id_t, unsigned, int64_t number, uint64_t, uint64_t,
                                 uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };

size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, TranslationCallback callback);
void qemu_plugin_register_vcpu_tb_exec_inline(qemu_plugin_tb* block, qemu_plugin_op operation,
                                              void* counter, uint64_t value);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id, SyscallCallback callback);

extern const int qemu_plugin_version;
const int qemu_plugin_version = 1;
int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv);
}

namespace {

uint64_t executed = 0;  // not atomic, because the measured program has one thread
uint64_t at_first_mark = 0;
bool between_marks = false;

void count_block(qemu_plugin_id_t, qemu_plugin_tb* block) {
    qemu_plugin_register_vcpu_tb_exec_inline(block, QEMU_PLUGIN_INLINE_ADD_U64, &executed,
                                             qemu_plugin_tb_n_insns(block));
}

void see_syscall(qemu_plugin_id_t, unsigned, int64_t number, uint64_t, uint64_t, uint64_t, uint64_t,
                 uint64_t, uint64_t, uint64_t, uint64_t) {
    if (number != MARK) return;
    if (between_marks) {
        std::fprintf(stderr, "%llu\n", static_cast<unsigned long long>(executed - at_first_mark));
    }
    between_marks = !between_marks;
    at_first_mark = executed;
}

}  // namespace

int qemu_plugin_install(qemu_plugin_id_t id, const void*, int, char**) {
    qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
    qemu_plugin_register_vcpu_syscall_cb(id, see_syscall);
    return 0;
}
