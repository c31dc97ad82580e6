// sysvbits.cpp: the map of bits. All work on single words is done by `matching`, which knows where the last word ends.
#include "utils/unix/sysvbits.h"

#include "utils/utmem/utmem.h"

constexpr uint32 bits_per_word = 32;

c_bit_array::c_bit_array(uint32 num_bits, a_bool cleared)
    : _bitarray(nullptr), _size(num_bits), _num_elem((num_bits + bits_per_word - 1) / bits_per_word), _first_clear(0)
{
    if (num_bits != 0)
        _bitarray = static_cast<uint32*>(ut_malloc(_num_elem * sizeof(uint32)));
    if (_bitarray == nullptr)
        _size = _num_elem = 0;
    if (cleared)
        clear_all();
}

c_bit_array::~c_bit_array()
{
    ut_free(_bitarray);
    _bitarray = nullptr;
    _size = _num_elem = 0;
}

// The bits of a word that are like that, none beyond the end.
uint32 c_bit_array::matching(uint32 word, a_bool setbit) const
{
    const uint32 bits = setbit ? _bitarray[word] : ~_bitarray[word];
    const uint32 valid = _size - word * bits_per_word;
    return valid >= bits_per_word ? bits : bits & ((1u << valid) - 1);
}

int c_bit_array::get_first(a_bool setbit)
{
    for (uint32 word = setbit ? 0 : _first_clear; word < _num_elem; word++) {
        if (!setbit)
            _first_clear = word;
        if (const uint32 bits = matching(word, setbit); bits != 0)
            return int(word * bits_per_word) + __builtin_ctz(bits);
    }
    return -1;
}

int c_bit_array::get_last(a_bool setbit) const
{
    for (uint32 word = _num_elem; word-- > 0;)
        if (const uint32 bits = matching(word, setbit); bits != 0)
            return int(word * bits_per_word) + 31 - __builtin_clz(bits);
    return -1;
}

unsigned int c_bit_array::count_bits(uint32 word, a_bool setbit) const
{
    return unsigned(__builtin_popcount(matching(word, setbit)));
}

int c_bit_array::count_bits(a_bool setbit) const
{
    unsigned count = 0;
    for (uint32 word = 0; word < _num_elem; word++)
        count += count_bits(word, setbit);
    return int(count);
}

a_bool c_bit_array::is_set(unsigned int bit_number) const
{
    return bit_number < _size && (_bitarray[bit_number / bits_per_word] >> bit_number % bits_per_word & 1) != 0;
}

a_bool c_bit_array::is_cleared(uint32 bit_number) const { return bit_number < _size && !is_set(bit_number); }

a_bool c_bit_array::set_bit(uint32 bit_number, a_bool to_true)
{
    const a_bool old_value = is_set(bit_number);
    if (bit_number >= _size || old_value == to_true)
        return old_value;
    const uint32 word = bit_number / bits_per_word;
    // The bound first, and both for good: a fork by another thread may come between the two.
    if (!to_true && word < _first_clear)
        __atomic_store_n(&_first_clear, word, __ATOMIC_RELAXED);
    __atomic_store_n(&_bitarray[word], _bitarray[word] ^ 1u << bit_number % bits_per_word, __ATOMIC_RELEASE);
    return old_value;
}

void c_bit_array::fill(a_bool to_true)
{
    for (uint32 word = 0; word < _num_elem; word++)
        _bitarray[word] = to_true ? ~0u : 0;
    _first_clear = to_true ? _num_elem : 0;
}
