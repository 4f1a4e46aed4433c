// Row-level rules of the port parameter family: value checks, field reads
// from the driver records and the mapping of stored settings.
#include "params/param_table.h"

#include <cstring>

namespace qmx::params {

const PortParam *findParam(std::string_view member) noexcept {
    for (const PortParam &p : kPortParams)
        if (member == p.member) return &p;
    return nullptr;
}

bool checksValue(const PortParam &p, int del) noexcept {
    switch (p.check) {
    case Check::UnlessDelete: return del != 1;
    case Check::DelNonZero: return del != 0;
    case Check::DelZero:
    case Check::DelZeroOnly: return del == 0;
    case Check::Always: return true;
    }
    return true;
}

bool accepts(const Range &r, int64_t value) noexcept {
    if (r.oneOf != 0) return value >= 0 && value < 64 && ((r.oneOf >> value) & 1u) != 0;
    return value >= r.lo && value <= r.hi;
}

namespace {

// The field's value, widened by its own signedness.  The caller has checked
// that the field lies inside the record.
int64_t readField(const unsigned char *record, const Field &f) noexcept {
    const unsigned char *at = record + f.offset;
    switch (f.width) {
    case 1: {
        uint8_t v;
        std::memcpy(&v, at, 1);
        return f.isSigned ? int64_t(int8_t(v)) : int64_t(v);
    }
    case 2: {
        uint16_t v;
        std::memcpy(&v, at, 2);
        return f.isSigned ? int64_t(int16_t(v)) : int64_t(v);
    }
    case 4: {
        uint32_t v;
        std::memcpy(&v, at, 4);
        return f.isSigned ? int64_t(int32_t(v)) : int64_t(v);
    }
    default: return 0;
    }
}

}  // namespace

bool currentFrom(const PortParam &p, const unsigned char *record, std::size_t size,
                 int64_t *value) noexcept {
    if (p.current == Current::Untouched) return true;
    if (record == nullptr || p.field.width == 0 || std::size_t(p.field.offset) + p.field.width > size)
        return false;
    int64_t raw = readField(record, p.field);
    switch (p.current) {
    case Current::Field: *value = raw; return true;
    case Current::MiB: *value = raw >> 20; return true;
    case Current::NonZero: *value = raw != 0 ? 1 : 0; return true;
    case Current::IsOne: *value = raw == 1 ? 1 : 0; return true;
    case Current::IsolType:
        if (raw == 0) *value = 2;
        else if (raw == 1) *value = 1;
        else return false;
        return true;
    case Current::Untouched: return true;
    }
    return false;
}

int32_t mapSetting(const PortParam &p, int32_t stored) noexcept {
    switch (p.setting) {
    case Setting::Plain: return stored;
    case Setting::IsolType: return stored == 0 ? 2 : stored;
    case Setting::NonZero: return stored == -1 ? -1 : (stored != 0 ? 1 : 0);
    }
    return stored;
}

}  // namespace qmx::params
