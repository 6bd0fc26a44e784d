// Orbital sets of a species: which of s; p x, y, z; d xy, yz, zx, x2-y2, 3z2-r2
// it has, and where each sits in the species' block (s, p, d, in bit order).
#pragma once

namespace lyrt {

// Orbitals by number (also the bit index, from 1).
constexpr int orb_s = 1, orb_px = 2, orb_py = 3, orb_pz = 4;
constexpr int orb_dxy = 5, orb_dyz = 6, orb_dzx = 7, orb_dx2y2 = 8, orb_d3z2r2 = 9;

struct ao_type {
    int mask = 0;     // bit (k-1) set when orbital k is present
    int pos[10] = {}; // pos[k]: place of orbital k in the block, from 1; 0 if absent
};

int ao_no_to_ao(int count);            // mask of a legal orbital count (1,3,4,5,6,8,9), else 0
int ao_get_no_id(const ao_type& ao);   // orbital count of the set
int ao_get_no_type(const ao_type& ao); // the same
void ao_init(ao_type& ao, int mask);
int aop(int bit, const ao_type& ao); // place of orbital `bit` in the set, 0 if absent
bool ao_has_s(const ao_type& ao);
bool ao_has_p(const ao_type& ao);
bool ao_has_d(const ao_type& ao);
inline bool ao_has_s_s(const ao_type& a, const ao_type& b) {
    return ao_has_s(a) && ao_has_s(b);
}
inline bool ao_has_s_p(const ao_type& a, const ao_type& b) {
    return ao_has_s(a) && ao_has_p(b);
}
inline bool ao_has_s_d(const ao_type& a, const ao_type& b) {
    return ao_has_s(a) && ao_has_d(b);
}
inline bool ao_has_p_s(const ao_type& a, const ao_type& b) {
    return ao_has_p(a) && ao_has_s(b);
}
inline bool ao_has_p_p(const ao_type& a, const ao_type& b) {
    return ao_has_p(a) && ao_has_p(b);
}
inline bool ao_has_p_d(const ao_type& a, const ao_type& b) {
    return ao_has_p(a) && ao_has_d(b);
}
inline bool ao_has_d_s(const ao_type& a, const ao_type& b) {
    return ao_has_d(a) && ao_has_s(b);
}
inline bool ao_has_d_p(const ao_type& a, const ao_type& b) {
    return ao_has_d(a) && ao_has_p(b);
}
inline bool ao_has_d_d(const ao_type& a, const ao_type& b) {
    return ao_has_d(a) && ao_has_d(b);
}

} // namespace lyrt
