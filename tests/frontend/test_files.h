// Argument vectors for in-process option parsing.
#pragma once
#include <string>
#include <vector>

// argv for getopt: "prog" followed by the words, kept alive by the object.
class ArgList {
public:
    explicit ArgList(std::vector<std::string> words) : m_words(std::move(words))
    {
        m_words.insert(m_words.begin(), "kestrelQT_u");
        for (std::string& w : m_words)
            m_argv.push_back(&w[0]);
        m_argv.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_words.size()); }
    char** argv() { return m_argv.data(); }

private:
    std::vector<std::string> m_words;
    std::vector<char*> m_argv;
};
