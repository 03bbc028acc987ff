#include "programs/tavrelFrames/FrameNames.h"

#include <boost/core/demangle.hpp>
#include <dwarf.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

namespace Zendrik::Frames {

namespace {

using Stacks::NativeFrame;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

std::string demangled(const std::string& symbol) {
    // "@VERSION" is no part of the name.
    return boost::core::demangle(symbol.substr(0, symbol.find('@')).c_str());
}

std::string nameOf(Dwarf_Die* die) {
    Dwarf_Attribute attribute;
    const char* name = nullptr;
    for (const unsigned kind : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
        if (name == nullptr && dwarf_attr_integrate(die, kind, &attribute) != nullptr) {
            name = dwarf_formstring(&attribute);
        }
    }
    name = name != nullptr ? name : dwarf_diename(die);
    return name != nullptr ? demangled(name) : std::string();
}

struct Place {
    std::string file;
    int line = 0;
};

Place placeAt(Dwfl_Module* module, std::uint64_t address) {
    Place place;
    Dwfl_Line* const line = dwfl_module_getsrc(module, address);
    const char* const file =
        line == nullptr ? nullptr
                        : dwfl_lineinfo(line, nullptr, &place.line, nullptr, nullptr, nullptr);
    place.file = file == nullptr ? "" : file;
    return place;
}

// Where an inlined function was called.
Place callOf(Dwarf_Die* inlined, Dwarf_Die* unit) {
    Place place;
    Dwarf_Attribute attribute;
    Dwarf_Word number = 0;
    Dwarf_Files* files = nullptr;
    if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &attribute), &number) == 0 &&
        dwarf_getsrcfiles(unit, &files, nullptr) == 0) {
        const char* const file = dwarf_filesrc(files, number, nullptr, nullptr);
        place.file = file == nullptr ? "" : file;
    }
    if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &attribute), &number) == 0) {
        place.line = static_cast<int>(number);
    }
    return place;
}

// The scopes around `address`, innermost first, as they are nested in the code.
std::vector<Dwarf_Die> scopesAt(Dwarf_Die* unit, Dwarf_Addr address) {
    Dwarf_Die* found = nullptr;
    const int count = dwarf_getscopes(unit, address, &found);
    const std::unique_ptr<Dwarf_Die, Free> innermost(count > 0 ? found : nullptr);
    if (!innermost) {
        return {};
    }
    // Those around an inlined function are given as of its definition.
    Dwarf_Die* nested = nullptr;
    const int depth = dwarf_getscopes_die(innermost.get(), &nested);
    const std::unique_ptr<Dwarf_Die, Free> owner(depth > 0 ? nested : nullptr);
    return owner ? std::vector<Dwarf_Die>(nested, nested + depth) : std::vector<Dwarf_Die>();
}

// Frames of the functions inlined at `address`. Leaves in `place` where the last of them was
// called, and in `function` the name of the one around them.
std::vector<NativeFrame> inlinedAt(Dwfl_Module* module, std::uint64_t address, Place& place,
                                   std::string& function) {
    Dwarf_Addr bias = 0;
    Dwarf_Die* const unit = dwfl_module_addrdie(module, address, &bias);
    std::vector<NativeFrame> frames;
    if (unit == nullptr) {
        return frames;
    }
    for (Dwarf_Die& scope : scopesAt(unit, address - bias)) {
        const int tag = dwarf_tag(&scope);
        if (tag == DW_TAG_subprogram) {
            function = nameOf(&scope);
            break;
        }
        if (tag == DW_TAG_inlined_subroutine) {
            NativeFrame& frame = frames.emplace_back();
            frame.function = nameOf(&scope);
            frame.file = place.file;
            frame.line = place.line;
            frame.inlined = true;
            place = callOf(&scope, unit);
        }
    }
    return frames;
}

std::vector<NativeFrame> describe(Dwfl_Module* module, std::uint64_t address) {
    NativeFrame own;
    if (module == nullptr) {
        return {own};
    }
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* const name =
        dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
    Place place = placeAt(module, address);
    std::vector<NativeFrame> frames = inlinedAt(module, address, place, own.function);
    if (name != nullptr) {
        own.function = demangled(name);
        own.functionOffset = offset;
    }
    own.file = place.file;
    own.line = place.line;
    frames.push_back(std::move(own));
    return frames;
}

}  // namespace

const std::vector<NativeFrame>& FrameNames::at(std::uint64_t pc, bool isCall) {
    const std::uint64_t address = pc - (isCall ? 1 : 0);
    const auto [entry, isNew] = known_.try_emplace(address);
    if (isNew) {
        entry->second = describe(files_.at(address), address);
    }
    return entry->second;
}

}  // namespace Zendrik::Frames
