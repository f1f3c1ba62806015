// Names and locks of the client's own files.
#include "staging.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <system_error>

#include "files.h"

namespace client
{
namespace
{

using File = Staging::File;
using testing::IsEmpty;
using testing::SizeIs;

void MakeAll(Staging& staging)
{
    for (const File file : {File::kVersion, File::kNew})
    {
        support::WriteFile(staging.Path(file), "text");
    }
    for (int i = 0; i != 2; ++i)
    {
        support::WriteFile(staging.Path(File::kDirectory), "text");
        EXPECT_EQ("text", support::ReadFile(staging.PutDirectoryAside()));
    }
}

TEST(Staging, NamesHaveAFixedLength)
{
    const support::TemporaryDirectory folder;
    Staging one(folder.Path() + "/");
    const Staging other(folder.Path() + "/");
    EXPECT_NE(one.Name(File::kVersion), other.Name(File::kVersion));
    EXPECT_THAT(one.Name(File::kVersion),
                testing::MatchesRegex("\\.corpdir-[0-9a-f]{16}\\.version"));
    EXPECT_EQ(one.Path(File::kDirectory), folder.Path() + "/" + one.Name(File::kDirectory));
}

TEST(Staging, RemovesItsFilesAtTheEnd)
{
    const support::TemporaryDirectory folder;
    {
        Staging staging(folder.Path() + "/");
        MakeAll(staging);
        EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(6));
    }
    EXPECT_THAT(support::FilesIn(folder.Path()), IsEmpty());
}

TEST(Staging, RemovesFilesOfARunThatIsGone)
{
    const support::TemporaryDirectory folder;
    const pid_t child = fork();
    if (child == 0)
    {
        Staging staging(folder.Path() + "/");
        MakeAll(staging);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    ASSERT_THAT(support::FilesIn(folder.Path()), SizeIs(6));
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()),
                testing::UnorderedElementsAre(next.Name(File::kLock), next.Name(File::kVersion),
                                              next.Name(File::kDirectory)));
}

TEST(Staging, LeavesFilesOfARunThatLives)
{
    const support::TemporaryDirectory folder;
    Staging living(folder.Path() + "/");
    MakeAll(living);
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(6 + 3));
}

// The lock file is made first and removed last.
TEST(Staging, RemovesFilesWithoutALockFile)
{
    const support::TemporaryDirectory folder;
    support::WriteFile(folder.File(".corpdir-0123456789abcdef.directory"), "text");
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(3));
}

TEST(Staging, LeavesFilesOfOthers)
{
    const std::vector<std::string> names = {
        ".corpdir-0123456789abcdeg.directory", ".corpdir-0123456789abcde.directory",
        ".corpdir-0123456789abcdef", "corpdir-0123456789abcdef.directory"};
    const support::TemporaryDirectory folder;
    for (const std::string& name : names)
    {
        support::WriteFile(folder.File(name), "text");
    }
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(names.size() + 3));
}

// The transfer keeps the permissions of the file that it replaces.
TEST(Staging, FilesToBeReplacedArePrivate)
{
    const support::TemporaryDirectory folder;
    const mode_t before = umask(022);
    Staging staging(folder.Path() + "/");
    EXPECT_EQ(0644U, staging.NewFileMode());
    for (int i = 0; i != 2; ++i)
    {
        for (const File file : {File::kVersion, File::kDirectory})
        {
            struct stat state = {};
            ASSERT_EQ(0, stat(staging.Path(file).c_str(), &state));
            EXPECT_EQ(0600U, state.st_mode & 0777U);
        }
        EXPECT_NE("", staging.PutDirectoryAside());
    }
    umask(before);
}

TEST(Staging, FolderThatCannotBeWrittenIsAnError)
{
    const support::TemporaryDirectory folder;
    try
    {
        const Staging staging(folder.Path() + "/none/");
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (const std::system_error& error)
    {
        EXPECT_EQ(ENOENT, error.code().value());
    }
}

}  // namespace
}  // namespace client
