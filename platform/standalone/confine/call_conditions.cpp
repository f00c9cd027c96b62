#include "platform/standalone/confine/call_conditions.h"

#include <cerrno>
#include <cstddef>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace platform {

namespace {

// Architectures with 64-bit arguments, the lower half first, and plain arguments for all calls.
#if defined(__x86_64__) && defined(__LP64__)
constexpr uint32_t own_architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__) && defined(__AARCH64EL__)
constexpr uint32_t own_architecture = AUDIT_ARCH_AARCH64;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr uint32_t own_architecture = AUDIT_ARCH_RISCV64;
#else
constexpr uint32_t own_architecture = 0;
#endif

constexpr uint32_t first_call_of_another_kind = 0x40000000; // 32-bit pointers on x86-64

using program = std::vector<sock_filter>;

void add(program* code, uint16_t operation, uint32_t value, uint8_t on_true = 0,
         uint8_t on_false = 0)
{
    code->push_back({operation, on_true, on_false, value});
}

void load(program* code, size_t offset)
{
    add(code, BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
}

void load_low(program* code, unsigned argument)
{
    load(code, offsetof(seccomp_data, args) + argument * sizeof(uint64_t));
}

void load_high(program* code, unsigned argument)
{
    load(code, offsetof(seccomp_data, args) + argument * sizeof(uint64_t) + sizeof(uint32_t));
}

void answer(program* code, uint32_t result)
{
    add(code, BPF_RET | BPF_K, result);
}

// The next instruction is a jump to the end of the alternative. It is skipped when the comparison
// of the loaded value has this result.
void go_on_if(program* code, uint16_t comparison, uint32_t value, bool result)
{
    add(code, static_cast<uint16_t>(BPF_JMP | BPF_K | comparison), value, result ? 1 : 0,
        result ? 0 : 1);
    add(code, BPF_JMP | BPF_JA, 0);
}

void go_on_if_high_is_zero(program* code, unsigned argument)
{
    load_high(code, argument);
    go_on_if(code, BPF_JEQ, 0, true);
}

// Compares the lower half only when the upper half is zero.
void add_at_least(program* code, const argument_condition& condition)
{
    constexpr uint8_t rest = 3;
    load_high(code, condition.argument);
    add(code, BPF_JMP | BPF_K | BPF_JEQ, 0, 0, rest);
    load_low(code, condition.argument);
    go_on_if(code, BPF_JGE, condition.value, true);
}

void add_multiple(program* code, const argument_condition& condition)
{
    go_on_if_high_is_zero(code, condition.argument);
    load_low(code, condition.argument);
    go_on_if(code, BPF_JGE, condition.value, true);
    go_on_if(code, BPF_JGT, condition.last, false);
    go_on_if(code, BPF_JSET, condition.step - 1, false);
}

void add_condition(program* code, const argument_condition& condition)
{
    switch (condition.test) {
    case argument_test::IS_AT_LEAST:
        add_at_least(code, condition);
        return;
    case argument_test::IS_MULTIPLE:
        add_multiple(code, condition);
        return;
    case argument_test::IS_ZERO:
        go_on_if_high_is_zero(code, condition.argument);
        break;
    default:
        break;
    }
    load_low(code, condition.argument);
    if (condition.test == argument_test::LACKS_BITS) {
        go_on_if(code, BPF_JSET, condition.value, false);
    } else {
        go_on_if(code, BPF_JEQ, condition.value, condition.test != argument_test::IS_NOT);
    }
}

bool is_jump(const sock_filter& instruction)
{
    return instruction.code == (BPF_JMP | BPF_JA);
}

// Permits the call when all conditions hold, otherwise goes on behind.
program alternative(const condition_list& conditions)
{
    program code;
    for (const argument_condition& condition : conditions) {
        add_condition(&code, condition);
    }
    answer(&code, SECCOMP_RET_ALLOW);
    for (size_t i = 0; i < code.size(); ++i) {
        if (is_jump(code[i])) {
            code[i].k = static_cast<uint32_t>(code.size() - i - 1);
        }
    }
    return code;
}

// The number of the call is loaded, and still is when the call is another one.
void add_call(program* code, const call_condition& condition)
{
    program body;
    for (const condition_list& conditions : condition.alternatives) {
        const program next = alternative(conditions);
        body.insert(body.end(), next.begin(), next.end());
    }
    answer(&body, SECCOMP_RET_ERRNO | EPERM);
    add(code, BPF_JMP | BPF_K | BPF_JEQ, static_cast<uint32_t>(condition.call), 1, 0);
    add(code, BPF_JMP | BPF_JA, static_cast<uint32_t>(body.size()));
    code->insert(code->end(), body.begin(), body.end());
}

program whole_program(const std::vector<call_condition>& conditions)
{
    program code;
    load(&code, offsetof(seccomp_data, arch));
    add(&code, BPF_JMP | BPF_K | BPF_JEQ, own_architecture, 1, 0);
    answer(&code, SECCOMP_RET_ERRNO | ENOSYS);
    load(&code, offsetof(seccomp_data, nr));
    add(&code, BPF_JMP | BPF_K | BPF_JGE, first_call_of_another_kind, 0, 1);
    answer(&code, SECCOMP_RET_ERRNO | ENOSYS);
    for (const call_condition& condition : conditions) {
        add_call(&code, condition);
    }
    answer(&code, SECCOMP_RET_ALLOW);
    return code;
}

} // namespace

bool restrict_arguments(const std::vector<call_condition>& conditions)
{
    program code = whole_program(conditions);
    if (own_architecture == 0 || code.size() > BPF_MAXINSNS) {
        return false;
    }
    sock_fprog all = {static_cast<unsigned short>(code.size()), code.data()};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &all, 0, 0) == 0;
}

} // namespace platform
