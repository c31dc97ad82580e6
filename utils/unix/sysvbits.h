// sysvbits.h: a map of bits, of the members of a kernel set that are in use: bit i in word i / 32, from the least
// significant on. It is searched by whole words, for a clear bit from where the last search ended. Without memory for
// its words it has no bits. No locks. Not signal-safe: it allocates.
#pragma once

#include "corvex/types.h"

class c_bit_array {
public:
    c_bit_array(uint32 num_bits, a_bool cleared);
    ~c_bit_array();
    c_bit_array& operator=(c_bit_array&&) = delete;  // nor copies

    int get_first(a_bool setbit);       // lowest index whose bit is like that, -1 for none
    int get_last(a_bool setbit) const;  // highest
    int count_bits(a_bool setbit) const;
    uint32 get_size() const { return _size; }
    a_bool is_set(unsigned int bit_number) const;                           // FALSE beyond the end
    a_bool is_cleared(uint32 bit_number) const;                             // FALSE beyond the end
    a_bool set(uint32 bit_number) { return set_bit(bit_number, TRUE); }     // both give the bit's previous value and
    a_bool clear(uint32 bit_number) { return set_bit(bit_number, FALSE); }  // ignore an index beyond the end
    void set_all() { fill(TRUE); }
    void clear_all() { fill(FALSE); }

private:
    a_bool set_bit(uint32 bit_number, a_bool to_true);
    void fill(a_bool to_true);
    unsigned int count_bits(uint32 word, a_bool setbit) const;
    uint32 matching(uint32 word, a_bool setbit) const;

    uint32* _bitarray;
    uint32 _size;
    uint32 _num_elem;
    uint32 _first_clear;  // no word before this one has a clear bit
};
