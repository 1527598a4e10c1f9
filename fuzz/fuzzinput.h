#ifndef VELA_FUZZ_FUZZINPUT_H
#define VELA_FUZZ_FUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

/*
 * The fuzzer's bytes read as a stream of small decisions, front to back.
 * Each decision takes one byte; once the bytes run out every decision is 0,
 * the first (and most ordinary) choice, so any input describes a complete
 * run and short inputs describe short, plain ones. Reading front to back
 * keeps a seed easy to write by hand: one byte per decision, in the order
 * in which the run makes them.
 */
class FuzzInput
{
public:
    FuzzInput(const uint8_t* data, size_t size);

    // A number in [0, count); 0 when the input is used up or count < 2.
    int pick(int count);
    // A number in [low, high].
    int between(int low, int high);
    // True with a chance of one in `outOf` (never once the input is used up,
    // unless `outOf` is 1).
    bool oneIn(int outOf);
    bool exhausted() const;

    // What a run does, line by line on stderr, when VELA_FUZZ_TRACE is set:
    // how to see what a crashing input describes.
    static void trace(const std::string& line);

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_position = 0;
};

#endif
