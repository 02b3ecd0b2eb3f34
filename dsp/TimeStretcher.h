#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>
#include <cstdint>

namespace Zelmar {

// Corrects clock drift without touching a clock: on request the next period comes out one frame
// shorter or longer, changed where the adjacent-sample step is smallest. Mono; stereo goes through
// the stereo wrapper so that both channels get the same order.
class ORVANDELDSP_EXPORT TimeStretcher : public Module
{
public:
    enum TaskForNextBuffer : int
    {
        None = 0,
        Skip = 1,
        Stretch = 2
    };

    explicit TimeStretcher(Tools::String const& id) : Module(id) {}
    ~TimeStretcher() override = default;

    // The output length may differ from the input's, so it needs a buffer of its own.
    bool canProcessInPlace() const override { return false; }
    void postSetup(unsigned int periodSize) override;
    void setOutPortBuffer(unsigned int port, std::shared_ptr<AudioBuffer> buffer) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Any thread: a late order simply applies one period later; a newer order replaces a pending one.
    void setTaskForNextBuffer(TaskForNextBuffer task)
    {
        m_taskForNextBuffer.store(task, std::memory_order_relaxed);
    }
    unsigned int getNumSamplesProduced() const
    {
        return static_cast<unsigned int>(m_numSamplesProduced.load(std::memory_order_relaxed));
    }
    void resetNumSamplesProduced() { m_numSamplesProduced.store(0, std::memory_order_relaxed); }

    // Index of the later sample of the first adjacent input pair with the smallest absolute step.
    unsigned int findSmallestChangeInBuffer() const;

private:
    void skip();
    void stretch();

    std::atomic<TaskForNextBuffer> m_taskForNextBuffer{None};
    std::atomic<uint64_t> m_numSamplesProduced{0};
    // The audio thread counts into it: a 32-bit target must do that without a lock (ARMv7 has ldrexd).
    static_assert(std::atomic<uint64_t>::is_always_lock_free, "the frame count is shared without locks");
    static_assert(std::atomic<TaskForNextBuffer>::is_always_lock_free, "the task is shared without locks");
    // Room every output buffer keeps: one period plus the inserted frame.
    unsigned int m_reservedFrames = 0;
};

} // namespace Zelmar
