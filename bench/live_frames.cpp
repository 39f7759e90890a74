// SPDX-License-Identifier: Apache-2.0
#include "live_frames.h"

#include <bpf/bpf.h>
#include <linux/bpf.h>

#include <ctime>
#include <iterator>

namespace {

constexpr uint32_t kLiveFrames = 1U << 1;  // BPF_F_TEST_XDP_LIVE_FRAMES of kernel 5.18

}  // namespace

int plain_program(bool drops) {
    const int answer = drops ? XDP_DROP : XDP_PASS;
    const bpf_insn instructions[] = {{BPF_ALU64 | BPF_MOV | BPF_K, 0, 0, 0, answer}, {BPF_JMP | BPF_EXIT, 0, 0, 0, 0}};
    return bpf_prog_load(BPF_PROG_TYPE_XDP, "plain", "GPL", instructions, std::size(instructions), nullptr);
}

double send_frames(int program, uint32_t interface, const std::vector<uint8_t> &frame, uint32_t count) {
    xdp_md context{};
    context.data_end = static_cast<uint32_t>(frame.size());
    context.ingress_ifindex = interface;
    LIBBPF_OPTS(bpf_test_run_opts, options);
    options.data_in = frame.data();
    options.data_size_in = static_cast<uint32_t>(frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof(context);
    options.repeat = static_cast<int>(count);
    options.flags = kLiveFrames;
    const double begin = processor_ns();
    const int result = bpf_prog_test_run_opts(program, &options);
    return result == 0 ? (processor_ns() - begin) / count : -1;
}

double processor_ns() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}
