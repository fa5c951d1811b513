/*
 * Executed-instruction counter for qemu-user (TCG plugin, API version 1).
 * Every translated block adds its instruction count to a running total each
 * time it runs. Counting is switched on and off by calls to a function
 * named kivbf_count_toggle in the guest program (count_kivbf.cpp calls it
 * where callgrind's collection is toggled), so the measured total covers
 * the same work as callgrind's. At exit it prints
 *   insns: <whole run> measured: <between the toggles>
 *
 *   cc -shared -fPIC -O2 -o insn_count_plugin.so bench/insn_count_plugin.c
 *   qemu-aarch64 -L /usr/aarch64-linux-gnu -plugin ./insn_count_plugin.so -d plugin -D log prog args
 *
 * Debian ships QEMU without its plugin header, so the few declarations used
 * here are written out from the documented interface. The inline add is a
 * plain (non-atomic) addition: qemu-user runs the single-threaded benchmark
 * on one virtual CPU. The toggle function is straight-line code, so a block
 * starting in it starts at its entry.
 */
#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define PLUGIN_EXPORT __attribute__((visibility("default")))

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
typedef struct qemu_info_t qemu_info_t; /* only passed through */

struct qemu_plugin_insn;

enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
enum qemu_plugin_cb_flags { QEMU_PLUGIN_CB_NO_REGS, QEMU_PLUGIN_CB_R_REGS, QEMU_PLUGIN_CB_RW_REGS };

typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb *tb);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void *userdata);
typedef void (*qemu_plugin_vcpu_udata_cb_t)(unsigned int vcpu_index, void *userdata);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *tb, enum qemu_plugin_op op, void *ptr,
                                              uint64_t imm);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *tb, qemu_plugin_vcpu_udata_cb_t cb,
                                          enum qemu_plugin_cb_flags flags, void *userdata);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
struct qemu_plugin_insn *qemu_plugin_tb_get_insn(const struct qemu_plugin_tb *tb, size_t idx);
const char *qemu_plugin_insn_symbol(const struct qemu_plugin_insn *insn);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void *userdata);
void qemu_plugin_outs(const char *string);

PLUGIN_EXPORT int qemu_plugin_version = 1;

static const char kToggleSymbol[] = "kivbf_count_toggle";

static uint64_t executed;  /* instructions of every block run so far */
static uint64_t measured;  /* those run while counting was on */
static uint64_t switched_on_at;
static bool counting;

static void toggle(unsigned int vcpu_index, void *userdata) {
    (void)vcpu_index;
    (void)userdata;
    if (counting) measured += executed - switched_on_at;
    else switched_on_at = executed;
    counting = !counting;
}

static void count_block(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    const size_t n = qemu_plugin_tb_n_insns(tb);
    if (n == 0) return;
    const char *symbol = qemu_plugin_insn_symbol(qemu_plugin_tb_get_insn(tb, 0));
    if (symbol != NULL && strcmp(symbol, kToggleSymbol) == 0)
        qemu_plugin_register_vcpu_tb_exec_cb(tb, toggle, QEMU_PLUGIN_CB_NO_REGS, NULL);
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &executed, n);
}

static void report_total(qemu_plugin_id_t id, void *userdata) {
    (void)id;
    (void)userdata;
    char line[96];
    snprintf(line, sizeof line, "insns: %" PRIu64 " measured: %" PRIu64 "\n", executed, measured);
    qemu_plugin_outs(line);
}

PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info, int argc, char **argv) {
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
    qemu_plugin_register_atexit_cb(id, report_total, NULL);
    return 0;
}
