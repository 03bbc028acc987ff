#include "programs/CrashReporterTavrel/UnwindRules.h"

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "common/dwarf/bytereader-inl.h"
#include "common/dwarf/dwarf2reader.h"
#include "processor/cfi_frame_info.h"

namespace Zendrik::Reporter {

namespace {

using google_breakpad::CallFrameInfo;

constexpr int kReturnAddress = 16;
// DWARF's numbers of the general registers, in the names of Breakpad's walker.
constexpr const char* kRegisterNames[] = {"$rax", "$rdx", "$rcx", "$rbx", "$rsi", "$rdi",
                                          "$rbp", "$rsp", "$r8",  "$r9",  "$r10", "$r11",
                                          "$r12", "$r13", "$r14", "$r15", ".ra"};

// Applies the changes of rules one after the other up to the wanted address.
class RulesCollector : public CallFrameInfo::Handler {
  public:
    explicit RulesCollector(uint64_t wanted) : wanted_(wanted) {}

    std::unique_ptr<google_breakpad::CFIFrameInfo> result() const {
        const auto frame = rules_.find(kCFARegister);
        const auto caller = rules_.find(kReturnAddress);
        if (!covered_ || frame == rules_.end() || caller == rules_.end()) {
            return nullptr;
        }
        auto info = std::make_unique<google_breakpad::CFIFrameInfo>();
        info->SetCFARule(frame->second);
        info->SetRARule(caller->second);
        for (const auto& [number, rule] : rules_) {
            if (number != kCFARegister && number != kReturnAddress) {
                info->SetRegisterRule(nameOf(number), rule);
            }
        }
        return info;
    }

    bool Entry(size_t, uint64_t address, uint64_t length, uint8_t, const std::string&,
               unsigned returnAddress) override {
        covered_ = wanted_ - address < length && returnAddress == kReturnAddress;
        return covered_;
    }
    bool UndefinedRule(uint64_t address, int reg) override {
        // No return address: the outermost frame. A caller at 0 ends the walk there.
        return reg == kReturnAddress ? record(address, reg, "0") : forget(address, reg);
    }
    bool SameValueRule(uint64_t address, int reg) override {
        return record(address, reg, nameOf(reg));
    }
    bool OffsetRule(uint64_t address, int reg, int base, long offset) override {
        return record(address, reg, nameOf(base) + " " + std::to_string(offset) + " + ^");
    }
    bool ValOffsetRule(uint64_t address, int reg, int base, long offset) override {
        return record(address, reg, nameOf(base) + " " + std::to_string(offset) + " +");
    }
    bool RegisterRule(uint64_t address, int reg, int base) override {
        return record(address, reg, nameOf(base));
    }
    bool ExpressionRule(uint64_t address, int reg, const std::string&) override {
        return forget(address, reg);
    }
    bool ValExpressionRule(uint64_t address, int reg, const std::string&) override {
        return forget(address, reg);
    }
    bool End() override { return true; }
    std::string Architecture() override { return "x86_64"; }

  private:
    static std::string nameOf(int reg) {
        constexpr int count = sizeof kRegisterNames / sizeof *kRegisterNames;
        return reg == kCFARegister ? ".cfa" : reg < count ? kRegisterNames[reg] : "$unknown";
    }
    bool record(uint64_t address, int reg, const std::string& rule) {
        if (address > wanted_) {
            return false;
        }
        rules_[reg] = rule;
        return true;
    }
    bool forget(uint64_t address, int reg) {
        if (address > wanted_) {
            return false;
        }
        rules_.erase(reg);
        return true;
    }

    uint64_t wanted_;
    bool covered_ = false;
    std::map<int, std::string> rules_;
};

// A damaged entry just gives no rules; Breakpad's own reporter would print.
class SilentReporter : public CallFrameInfo::Reporter {
  public:
    SilentReporter() : Reporter("") {}
    void Incomplete(uint64_t, CallFrameInfo::EntryKind) override {}
    void EarlyEHTerminator(uint64_t) override {}
    void CIEPointerOutOfRange(uint64_t, uint64_t) override {}
    void BadCIEId(uint64_t, uint64_t) override {}
    void UnexpectedAddressSize(uint64_t, uint8_t) override {}
    void UnexpectedSegmentSize(uint64_t, uint8_t) override {}
    void UnrecognizedVersion(uint64_t, int) override {}
    void UnrecognizedAugmentation(uint64_t, const std::string&) override {}
    void InvalidPointerEncoding(uint64_t, uint8_t) override {}
    void UnusablePointerEncoding(uint64_t, uint8_t) override {}
    void RestoreInCIE(uint64_t, uint64_t) override {}
    void BadInstruction(uint64_t, CallFrameInfo::EntryKind, uint64_t) override {}
    void NoCFARule(uint64_t, CallFrameInfo::EntryKind, uint64_t) override {}
    void EmptyStateStack(uint64_t, CallFrameInfo::EntryKind, uint64_t) override {}
    void ClearingCFARule(uint64_t, CallFrameInfo::EntryKind, uint64_t) override {}
};

}  // namespace

std::unique_ptr<google_breakpad::CFIFrameInfo> unwindRulesAt(uint64_t address,
                                                             const uint8_t* common,
                                                             size_t commonSize,
                                                             const uint8_t* entry, size_t entrySize,
                                                             uint64_t entryAddress) {
    // The parser reads sections, so the two entries become a section of their own: the frame
    // description entry keeps its address and is told the new distance to the other.
    std::vector<uint8_t> section(common, common + commonSize);
    section.insert(section.end(), entry, entry + entrySize);
    const auto distance = static_cast<uint32_t>(commonSize + sizeof(uint32_t));
    std::memcpy(section.data() + commonSize + sizeof(uint32_t), &distance, sizeof distance);

    // A number of variable length that the section's end cuts off is read on to its last byte:
    // zero.
    const size_t sectionSize = section.size();
    section.push_back(0);

    google_breakpad::ByteReader reader(google_breakpad::ENDIANNESS_LITTLE);
    reader.SetAddressSize(sizeof(uint64_t));
    reader.SetCFIDataBase(entryAddress - commonSize, section.data());
    RulesCollector collector(address);
    SilentReporter reporter;
    CallFrameInfo parser(section.data(), sectionSize, &reader, &collector, &reporter, true);
    (void)parser.Start();  // a rule that came before the damage still holds
    return collector.result();
}

}  // namespace Zendrik::Reporter
