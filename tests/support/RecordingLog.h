#pragma once

#include <QDPlatform/COutputLog.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

// A log that keeps every message, for tests to look at. Safe for any number of threads.
class RecordingLog : public COutputLog
{
public:
    struct Message
    {
        LogType m_Type;
        int m_Code;
        std::string m_Text;

        bool operator==(const Message&) const = default;
    };

    void Clear() override
    {
        const std::lock_guard lock(m_Mutex);
        m_Messages.clear();
    }

    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override
    {
        const std::lock_guard lock(m_Mutex);
        m_Messages.push_back({type, code, std::string(text, length)});
    }

    std::vector<Message> GetMessages() const
    {
        const std::lock_guard lock(m_Mutex);
        return m_Messages;
    }

    std::vector<std::string> GetTexts() const
    {
        std::vector<std::string> texts;
        for (const Message& message : GetMessages())
            texts.push_back(message.m_Text);
        return texts;
    }

    // How many messages are exactly `text`.
    std::size_t Count(const std::string& text) const
    {
        const std::vector<std::string> texts = GetTexts();
        return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
    }

    bool Has(const std::string& text) const { return Count(text) != 0; }

    // How many messages have `part` in them.
    std::size_t CountContaining(const std::string& part) const
    {
        const std::vector<std::string> texts = GetTexts();
        return static_cast<std::size_t>(std::count_if(
            texts.begin(), texts.end(), [&](const std::string& text) { return text.find(part) != std::string::npos; }));
    }

private:
    mutable std::mutex m_Mutex;
    std::vector<Message> m_Messages; // m_Mutex
};
