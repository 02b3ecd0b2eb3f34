#pragma once

#include <glib.h>
#include <glib/gstdio.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Testing {

// A scratch directory for one test, removed with everything in it when it goes.
class TemporaryDirectory
{
public:
    explicit TemporaryDirectory(char const* pattern = "orvandeldsp-test-XXXXXX")
    {
        gchar* path = g_dir_make_tmp(pattern, nullptr);
        m_path = path;
        g_free(path);
    }
    ~TemporaryDirectory() { removeTree(m_path); }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::string const& path() const { return m_path; }
    std::string path(std::string const& name) const { return m_path + "/" + name; }

    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        if (GDir* dir = g_dir_open(m_path.c_str(), 0, nullptr)) {
            while (char const* name = g_dir_read_name(dir))
                names.push_back(name);
            g_dir_close(dir);
        }
        return names;
    }

    // The whole file, or "" when it cannot be read.
    std::string read(std::string const& name) const
    {
        gchar* text = nullptr;
        gsize length = 0;
        if (!g_file_get_contents(path(name).c_str(), &text, &length, nullptr))
            return "";
        std::string const contents(text, length);
        g_free(text);
        return contents;
    }

    std::string write(std::string const& name, std::string const& text) const
    {
        g_file_set_contents(path(name).c_str(), text.c_str(), gssize(text.size()), nullptr);
        return path(name);
    }

private:
    // Symbolic links are removed, not followed.
    static void removeTree(std::string const& path)
    {
        if (g_file_test(path.c_str(), G_FILE_TEST_IS_DIR) &&
            !g_file_test(path.c_str(), G_FILE_TEST_IS_SYMLINK)) {
            if (GDir* dir = g_dir_open(path.c_str(), 0, nullptr)) {
                while (char const* name = g_dir_read_name(dir))
                    removeTree(path + "/" + name);
                g_dir_close(dir);
            }
        }
        g_remove(path.c_str());
    }

    std::string m_path;
};

} // namespace Testing
} // namespace Zelmar
