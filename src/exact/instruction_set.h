// Which vectors the loops of an evolution are compiled for and run with.
#pragma once

namespace tavrel {

/// Instruction sets the kernels are compiled for. The bytes are the same for all.
enum class InstructionSet { portable, avx2, avx512 };

/// The widest instruction set of this processor.
inline InstructionSet widestInstructionSet() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
    return InstructionSet::avx512;
  }
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2")) return InstructionSet::avx2;
#endif
  return InstructionSet::portable;
}

}  // namespace tavrel
