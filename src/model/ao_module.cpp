#include "model/ao_module.hpp"

#include <bit>

namespace lyrt {

int ao_no_to_ao(int count) {
    switch (count) {
    case 1: return 1;
    case 3: return 14;
    case 4: return 15;
    case 5: return 496;
    case 6: return 497;
    case 8: return 510;
    case 9: return 511;
    default: return 0;
    }
}

int ao_get_no_id(const ao_type& ao) {
    return std::popcount(static_cast<unsigned>(ao.mask));
}
int ao_get_no_type(const ao_type& ao) {
    return ao_get_no_id(ao);
}

int aop(int bit, const ao_type& ao) {
    const unsigned m = static_cast<unsigned>(ao.mask);
    if (((m >> (bit - 1)) & 1u) == 0) return 0;
    return std::popcount(m & ((1u << bit) - 1u));
}

void ao_init(ao_type& ao, int mask) {
    ao.mask = mask;
    ao.pos[0] = 0;
    for (int bit = 1; bit <= 9; ++bit) ao.pos[bit] = aop(bit, ao);
}

bool ao_has_s(const ao_type& ao) {
    return (ao.mask & 1) != 0;
}
bool ao_has_p(const ao_type& ao) {
    return (ao.mask & 14) != 0;
}
bool ao_has_d(const ao_type& ao) {
    return (ao.mask & 496) != 0;
}

} // namespace lyrt
