#include "symbols/TargetEnvironment.hpp"

namespace disasm_lite {

namespace {
constexpr const char* kContextName = "CloudDisasm";
}

void TargetEnvironment::setRegisterQuery(const char* name, uint64_t value, uint32_t first,
                                         uint32_t second) {
  query_ = {name ? name : "", value, first, second};
}

void TargetEnvironment::setSecondRegisterQuery(const char* name, uint64_t value, uint32_t first,
                                               uint32_t second) {
  secondQuery_ = {name ? name : "", value, first, second};
}

uint64_t* TargetEnvironment::registerValue(uint64_t* out) {
  *out = 0;
  return out;
}

uint64_t* TargetEnvironment::secondRegisterValue(uint64_t* out) {
  *out = 0;
  return out;
}

uint64_t* TargetEnvironmentWithEndianness::registerValue(uint64_t* out) {
  *out = query().name == endianRegister_ ? endianValue_ : 0;
  return out;
}

uint64_t* TargetEnvironmentDsa::registerValue(uint64_t* out) {
  *out = query().name == "ST1" && modeBit_ ? 256 : 0;
  return out;
}

std::unique_ptr<TargetEnvironment> makeTargetEnvironment(uint32_t processorId, bool bigEndian) {
  const uint32_t family = processorFamily(processorId);
  const uint32_t variant = processorVariant(processorId);
  // The sense of the bit differs by family: a set CSR or TSR bit means
  // little-endian, a set REG_ENDIAN means big-endian.
  const uint64_t notBig = bigEndian ? 0 : 1;
  if (family == 320) {
    switch (variant) {
      case 40:
        return std::make_unique<TargetEnvironmentDsa>(processorId, kContextName);
      case 98: case 100: case 102: case 103:
        return std::make_unique<TargetEnvironmentDsb>(processorId, kContextName, "CSR",
                                                      notBig << 8);
      case 113: case 117:
        return std::make_unique<TargetEnvironmentDsc>(processorId, kContextName, "TSR",
                                                      notBig << 56);
      default:
        break;
    }
  } else if (family == 470) {
    return std::make_unique<TargetEnvironmentCortex>(processorId, kContextName, "REG_ENDIAN",
                                                     bigEndian ? 1 : 0);
  }
  return std::make_unique<TargetEnvironment>(processorId, kContextName);
}

}  // namespace disasm_lite
