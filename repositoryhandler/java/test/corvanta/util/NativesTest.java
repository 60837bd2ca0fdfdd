package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.BasicFileAttributes;
import java.nio.file.attribute.FileTime;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/** Each native: its answers, its failures, its messages, and what it does to the field {@code status}. */
class NativesTest {
    private static final String ID = TestRepository.ID;
    private static final int EARLIER = 77; // what no call stores

    @TempDir
    Path directory;

    private final RepositoryHandler handler = new RepositoryHandler();

    @BeforeEach
    void startAfresh() {
        Preloaded.skipPauses(true);
        Preloaded.takeMessages();
        handler.status = EARLIER;
    }

    @AfterEach
    void waitAgain() {
        Preloaded.skipPauses(false);
    }

    // All ten

    @ParameterizedTest
    @EnumSource(Native.class)
    void anExceptionIsLoggedAndAnsweredAndLeavesStatusAlone(Native method) {
        String root = TestRepository.broken(directory).root;
        assertEquals(method.failure, method.on(handler, root, ID));
        assertEquals(List.of(method.caught(root, ID)), Preloaded.takeMessages());
        assertEquals(EARLIER, handler.status);
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void aNullRepositoryFailsAsAnException(Native method) {
        assertEquals(method.failure, method.on(handler, null, ID));
        assertEquals(List.of(method.caught(null, ID)), Preloaded.takeMessages());
        assertEquals(EARLIER, handler.status);
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, mode = EnumSource.Mode.EXCLUDE,
            names = {"LIST_DIRS", "LIST_FILES", "REPOSITORY_STATUS"})
    void aNullResourceFailsAsAnException(Native method) {
        String root = TestRepository.in(directory).root;
        assertEquals(method.failure, method.on(handler, root, null));
        assertEquals(List.of(method.caught(root, null)), Preloaded.takeMessages());
        assertEquals(EARLIER, handler.status);
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void aCallThatSucceedsLogsNoError(Native method) {
        String root = TestRepository.in(directory).root;
        handler.createDirectoryNative(root, ID, false);
        method.on(handler, root, ID);
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    // Times

    @Test
    void setTimesTakesTheAccessTimeFirst() throws Exception {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        assertEquals(1000000001, timesOf(repository).lastAccessTime().to(TimeUnit.SECONDS));
        assertEquals(1000000002, timesOf(repository).lastModifiedTime().to(TimeUnit.SECONDS));
    }

    @Test
    void getTimesAnswersTheAccessTimeFirst() {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        assertArrayEquals(new int[] {1000000001, 1000000002}, handler.getTimePropertiesNative(repository.root, ID));
    }

    @Test
    void getTimesOfAMissingResourceAnswersNullAndLogsNothing() {
        assertNull(handler.getTimePropertiesNative(TestRepository.in(directory).root, ID));
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    @Test
    void setTimesReadsNoMoreThanTwoElements() {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002, 1000000003});
        assertArrayEquals(new int[] {1000000001, 1000000002}, handler.getTimePropertiesNative(repository.root, ID));
    }

    @Test
    void setTimesWithoutAnArraySetsBothToNow() throws Exception {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        FileTime before = timeOfANewFile();
        handler.setTimePropertiesNative(repository.root, ID, null);
        assertTrue(timesOf(repository).lastAccessTime().compareTo(before) >= 0);
        assertTrue(timesOf(repository).lastModifiedTime().compareTo(before) >= 0);
    }

    @Test
    void setTimesWithTooShortAnArrayThrowsAndSetsNothing() {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        for (int[] tooShort : List.of(new int[0], new int[] {5})) {
            assertThrows(ArrayIndexOutOfBoundsException.class,
                    () -> handler.setTimePropertiesNative(repository.root, ID, tooShort));
        }
        assertArrayEquals(new int[] {1000000001, 1000000002}, handler.getTimePropertiesNative(repository.root, ID));
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    // Lists

    @Test
    void listsOfARepositoryWithoutResourcesAreEmptyArrays() {
        String root = TestRepository.in(directory).root;
        for (boolean sort : new boolean[] {false, true}) {
            assertArrayEquals(new String[0], handler.listDirsNative(root, sort));
            assertArrayEquals(new String[0], handler.listFilesNative(root, sort));
        }
    }

    @Test
    void directoriesAndFilesAreListedApart() throws Exception {
        String root = TestRepository.in(directory).root;
        handler.createDirectoryNative(root, "directory", false);
        Files.createFile(Path.of(handler.createLocationNative(root, "file", false)));
        for (boolean sort : new boolean[] {false, true}) {
            assertArrayEquals(new String[] {"directory"}, handler.listDirsNative(root, sort));
            assertArrayEquals(new String[] {"file"}, handler.listFilesNative(root, sort));
        }
    }

    @Test
    void listsAreInTheOrderOfTheDisksUnlessTheyAreToBeSorted() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        String root = repository.root;
        handler.createDirectoryNative(root, "z", false);
        Files.createFile(Path.of(handler.createLocationNative(root, "y", false)));
        repository.takeOut("d1");
        handler.createDirectoryNative(root, "a", true);
        Files.createFile(Path.of(handler.createLocationNative(root, "b", true)));
        repository.putBack("d1");
        assertArrayEquals(new String[] {"z", "a"}, handler.listDirsNative(root, false));
        assertArrayEquals(new String[] {"a", "z"}, handler.listDirsNative(root, true));
        assertArrayEquals(new String[] {"y", "b"}, handler.listFilesNative(root, false));
        assertArrayEquals(new String[] {"b", "y"}, handler.listFilesNative(root, true));
    }

    @Test
    void sortedMeansByBytes() {
        String root = TestRepository.in(directory).root;
        List<String> ids = new ArrayList<>(List.of("10", "9", "B", "_", "a", "b", "\u00e9", "\u0431", "\u6587"));
        List<String> shuffled = new ArrayList<>(ids);
        Collections.reverse(shuffled);
        shuffled.forEach(id -> handler.createDirectoryNative(root, id, false));
        assertEquals(ids, Arrays.asList(handler.listDirsNative(root, true)));
    }

    // The machine keeps room for few local references, and -Xcheck:jni warns of more.
    @Test
    void aListMayBeLong() {
        String root = TestRepository.in(directory).root;
        List<String> ids = new ArrayList<>();
        for (int number = 1000; number < 1500; ++number) {
            ids.add("r" + number);
            handler.createDirectoryNative(root, "r" + number, false);
        }
        assertArrayEquals(ids.toArray(), handler.listDirsNative(root, true));
    }

    // Removing and checking

    @Test
    void removeDeletesAResourceOnce() {
        TestRepository repository = withResource();
        assertEquals(0, handler.removeResourceNative(repository.root, ID));
        assertFalse(Files.exists(repository.place("d1")));
        assertEquals(4, handler.removeResourceNative(repository.root, ID));
        assertEquals(EARLIER, handler.status);
    }

    @Test
    void removeLeavesAResourceThatMayHaveACopyOnAMissingDisk() {
        TestRepository repository = dirty();
        assertEquals(1, handler.removeResourceNative(repository.root, ID));
        assertTrue(Files.exists(repository.place("d2")));
    }

    @Test
    void checkAnswersWhatGetLocationWouldStoreAndLeavesTheTimes() {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        assertEquals(0, handler.checkResourceStatusNative(repository.root, ID));
        assertArrayEquals(new int[] {1000000001, 1000000002}, handler.getTimePropertiesNative(repository.root, ID));
        assertEquals(4, handler.checkResourceStatusNative(repository.root, "absent"));
        assertEquals(1, handler.checkResourceStatusNative(dirty().root, ID));
        assertEquals(EARLIER, handler.status);
    }

    // The repository

    @Test
    void theStatusTellsOfMissingDisks() {
        TestRepository repository = TestRepository.in(directory);
        assertEquals(0, handler.getRepositoryStatusNative(repository.root));
        repository.takeOut("d2");
        assertEquals(0x80, handler.getRepositoryStatusNative(repository.root));
        repository.takeOut("d1");
        assertEquals(0x100, handler.getRepositoryStatusNative(repository.root));
        assertEquals(0x100, handler.getRepositoryStatusNative(directory + "/absent"));
        assertEquals(EARLIER, handler.status);
    }

    @Test
    void theStatusKeepsTheSwitchLimitToItself() {
        assertEquals(0, handler.getRepositoryStatusNative(TestRepository.switching(directory).root));
    }

    // Locations

    @Test
    void getLocationAnswersThePathAndMarksItUsed() throws Exception {
        TestRepository repository = withResource();
        handler.setTimePropertiesNative(repository.root, ID, new int[] {1000000001, 1000000002});
        FileTime before = timeOfANewFile();
        assertEquals(repository.place("d1").toString(), handler.getLocationNative(repository.root, ID));
        assertEquals(0, handler.status);
        assertTrue(timesOf(repository).lastModifiedTime().compareTo(before) >= 0);
    }

    @Test
    void getLocationOfAMissingResourceAnswersNullAndStoresTheCode() {
        assertNull(handler.getLocationNative(TestRepository.in(directory).root, ID));
        assertEquals(4, handler.status);
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    @Test
    void createLocationMakesOnlyTheDirectoriesAbove() {
        TestRepository repository = TestRepository.in(directory);
        assertEquals(repository.place("d1").toString(), handler.createLocationNative(repository.root, ID, false));
        assertEquals(0, handler.status);
        assertTrue(Files.isDirectory(repository.place("d1").getParent()));
        assertFalse(Files.exists(repository.place("d1")));
    }

    @Test
    void createDirectoryMakesTheDirectoryToo() {
        TestRepository repository = TestRepository.in(directory);
        assertEquals(repository.place("d1").toString(), handler.createDirectoryNative(repository.root, ID, false));
        assertEquals(0, handler.status);
        assertTrue(Files.isDirectory(repository.place("d1")));
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"CREATE_LOCATION", "CREATE_DIRECTORY"})
    void createFindsWhatIsThere(Native create) {
        TestRepository repository = TestRepository.in(directory);
        TestRepository.write(repository.place("d2"), "");
        assertEquals(repository.place("d2").toString(), create.on(handler, repository.root, ID));
        assertEquals(0, handler.status);
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"CREATE_LOCATION", "CREATE_DIRECTORY"})
    void createWithoutADiskAnswersNullAndStoresTheCode(Native create) {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        repository.takeOut("d2");
        assertNull(create.on(handler, repository.root, ID));
        assertEquals(8, handler.status);
        assertEquals(List.of("3 The repository \"" + repository.root + "\" is missing"), Preloaded.takeMessages());
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"CREATE_LOCATION", "CREATE_DIRECTORY"})
    void createOfAnIdOfTwoNamesFailsAsAnException(Native create) {
        String root = TestRepository.in(directory).root;
        assertNull(create.on(handler, root, "a/b"));
        assertEquals(EARLIER, handler.status);
        assertEquals(List.of(create.caught(root, "a/b")), Preloaded.takeMessages());
    }

    @Test
    void createLocationMarksAResourceThatMayHaveACopyUnlessToldNotTo() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        Files.createFile(Path.of(handler.createLocationNative(repository.root, "marked", false)));
        Files.createFile(Path.of(handler.createLocationNative(repository.root, "clean", true)));
        assertEquals(1, handler.checkResourceStatusNative(repository.root, "marked"));
        assertEquals(0, handler.checkResourceStatusNative(repository.root, "clean"));
    }

    @Test
    void createDirectoryMarksAResourceThatMayHaveACopyUnlessToldNotTo() {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        handler.createDirectoryNative(repository.root, "marked", false);
        handler.createDirectoryNative(repository.root, "clean", true);
        assertEquals(1, handler.checkResourceStatusNative(repository.root, "marked"));
        assertEquals(0, handler.checkResourceStatusNative(repository.root, "clean"));
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"GET_LOCATION", "CREATE_LOCATION", "CREATE_DIRECTORY"})
    void aLocationWithAMissingDiskIsAnsweredWithTheCode(Native locate) {
        TestRepository repository = dirty();
        assertEquals(repository.place("d2").toString(), locate.on(handler, repository.root, ID));
        assertEquals(1, handler.status);
    }

    @Test
    void copiesThatCannotBeJoinedAreNullAndACode() {
        TestRepository repository = conflicting();
        assertNull(handler.getLocationNative(repository.root, ID));
        assertEquals(2, handler.status);
        assertEquals(2, handler.checkResourceStatusNative(repository.root, ID));
    }

    @Test
    void createAnswersAPlaceAlsoBesideCopiesThatCannotBeJoined() {
        TestRepository repository = conflicting();
        assertEquals(repository.place("d1").toString(), handler.createLocationNative(repository.root, ID, false));
        assertEquals(0, handler.status);
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"GET_LOCATION", "CREATE_LOCATION", "CREATE_DIRECTORY"})
    void aLocationThatIsHeldIsNullAndStoresZero(Native locate) {
        TestRepository repository = withResource();
        repository.lock(ID);
        Object location = locate.on(handler, repository.root, ID);
        repository.unlock(ID);
        assertNull(location);
        assertEquals(0, handler.status);
        assertEquals(List.of(couldNotBeLocked(repository)), Preloaded.takeMessages());
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"REMOVE", "CHECK"})
    void aResourceThatIsHeldIsACode(Native method) {
        TestRepository repository = withResource();
        repository.lock(ID);
        Object code = method.on(handler, repository.root, ID);
        repository.unlock(ID);
        assertEquals(16, code);
        assertEquals(List.of(couldNotBeLocked(repository)), Preloaded.takeMessages());
        assertTrue(Files.exists(repository.place("d1")));
    }

    // What several tests start from

    private TestRepository withResource() {
        TestRepository repository = TestRepository.in(directory);
        TestRepository.write(repository.place("d1").resolve("content"), "");
        return repository;
    }

    /** The resource was made on d2 while d1 was away, and d1 is away. */
    private TestRepository dirty() {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        new RepositoryHandler().createDirectoryNative(repository.root, ID, false);
        return repository;
    }

    /** The same with d1 back, which has a file where d2 has a directory. */
    private TestRepository conflicting() {
        TestRepository repository = dirty();
        TestRepository.write(repository.place("d1"), "");
        repository.putBack("d1");
        return repository;
    }

    private static String couldNotBeLocked(TestRepository repository) {
        String lock = repository.lockFile(ID).getFileName().toString().substring("semaphore_".length());
        return "3 The resource \"" + lock + "\" could not be locked.";
    }

    private static BasicFileAttributes timesOf(TestRepository repository) throws Exception {
        return Files.readAttributes(repository.place("d1"), BasicFileAttributes.class);
    }

    /** Now by the clock of the file system, which may be a little behind the machine's. */
    private FileTime timeOfANewFile() throws Exception {
        return Files.getLastModifiedTime(Files.createTempFile(directory, "now", ""));
    }
}
