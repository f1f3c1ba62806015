// Names and locks of the client's own files.
#include "staging.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <system_error>

#include "files.h"

namespace client
{
namespace
{

using File = Staging::File;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void MakeAll(Staging& staging)
{
    for (const std::string& path :
         {staging.Path(File::kVersion), staging.Path(File::kDirectory), staging.Path(File::kNew),
          staging.NewReceivedPath(), staging.NewReceivedPath()})
    {
        support::WriteFile(path, "text");
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
    EXPECT_NE(one.NewReceivedPath(), one.NewReceivedPath());
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
    EXPECT_THAT(support::FilesIn(folder.Path()), ElementsAre(next.Name(File::kLock)));
}

TEST(Staging, LeavesFilesOfARunThatLives)
{
    const support::TemporaryDirectory folder;
    Staging living(folder.Path() + "/");
    MakeAll(living);
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(7));
}

// The lock file is made first and removed last.
TEST(Staging, RemovesFilesWithoutALockFile)
{
    const support::TemporaryDirectory folder;
    support::WriteFile(folder.File(".corpdir-0123456789abcdef.directory"), "text");
    const Staging next(folder.Path() + "/");
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(1));
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
    EXPECT_THAT(support::FilesIn(folder.Path()), SizeIs(names.size() + 1));
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
