package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.List;
import java.util.Optional;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The readable methods: what they make of the answers of the natives. */
class RepositoryHandlerTest {
    private static final String ID = TestRepository.ID;
    private static final Instant USED = Instant.ofEpochSecond(1000000001);
    private static final Instant CHANGED = Instant.ofEpochSecond(1000000002);

    @TempDir
    Path directory;

    private final RepositoryHandler handler = new RepositoryHandler();

    @BeforeEach
    void doNotWait() {
        Preloaded.skipPauses(true);
    }

    @AfterEach
    void waitAgain() {
        Preloaded.skipPauses(false);
    }

    // Answers

    @Test
    void aResourceIsCreatedFoundAndRemoved() {
        TestRepository repository = TestRepository.in(directory);
        Optional<String> place = Optional.of(repository.place("d1").toString());
        assertEquals(place, handler.createLocation(repository.root, ID, false));
        assertFalse(Files.exists(repository.place("d1")));
        assertEquals(place, handler.createDirectory(repository.root, ID, false));
        assertTrue(Files.isDirectory(repository.place("d1")));
        assertEquals(place, handler.getLocation(repository.root, ID));
        assertEquals(RepositoryHandler.FOUND, handler.status);
        assertEquals(RepositoryHandler.FOUND, handler.checkResourceStatus(repository.root, ID));
        assertEquals(RepositoryHandler.FOUND, handler.removeResource(repository.root, ID));
        assertFalse(Files.exists(repository.place("d1")));
    }

    @Test
    void aMissingResourceIsAnAnswer() {
        String root = TestRepository.in(directory).root;
        assertEquals(Optional.empty(), handler.getLocation(root, ID));
        assertEquals(RepositoryHandler.NOT_FOUND, handler.status);
        assertEquals(RepositoryHandler.NOT_FOUND, handler.checkResourceStatus(root, ID));
        assertEquals(RepositoryHandler.NOT_FOUND, handler.removeResource(root, ID));
        assertTrue(handler.getTimes(root, ID).isEmpty());
        handler.setTimes(root, ID, USED, CHANGED);
    }

    @Test
    void timesComeBackAsTheyWereSet() {
        String root = TestRepository.in(directory).root;
        handler.createDirectory(root, ID, false);
        handler.setTimes(root, ID, USED.plusMillis(999), CHANGED);
        RepositoryHandler.Times times = handler.getTimes(root, ID).orElseThrow();
        assertEquals(USED, times.accessed());
        assertEquals(CHANGED, times.modified());
    }

    @ParameterizedTest
    @ValueSource(ints = {Integer.MIN_VALUE, -1, 0, Integer.MAX_VALUE})
    void everyIntIsATime(int seconds) {
        String root = TestRepository.in(directory).root;
        handler.createDirectory(root, ID, false);
        handler.setTimes(root, ID, Instant.ofEpochSecond(seconds), CHANGED);
        assertEquals(Instant.ofEpochSecond(seconds), handler.getTimes(root, ID).orElseThrow().accessed());
    }

    @ParameterizedTest
    @ValueSource(longs = {Integer.MAX_VALUE + 1L, Integer.MIN_VALUE - 1L})
    void aTimeBeyondThemIsRefusedAndNothingIsSet(long seconds) {
        String root = TestRepository.in(directory).root;
        handler.createDirectory(root, ID, false);
        handler.setTimes(root, ID, USED, CHANGED);
        Instant beyond = Instant.ofEpochSecond(seconds);
        assertThrows(IllegalArgumentException.class, () -> handler.setTimes(root, ID, beyond, CHANGED));
        assertThrows(IllegalArgumentException.class, () -> handler.setTimes(root, ID, USED, beyond));
        assertEquals(USED, handler.getTimes(root, ID).orElseThrow().accessed());
        assertEquals(CHANGED, handler.getTimes(root, ID).orElseThrow().modified());
    }

    @Test
    void listsAreSortedOnDemandAndCannotBeChanged() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        String root = repository.root;
        assertEquals(List.of(), handler.listDirs(root, true));
        assertEquals(List.of(), handler.listFiles(root, false));
        handler.createDirectory(root, "z", false);
        Files.createFile(Path.of(handler.createLocation(root, "y", false).orElseThrow()));
        repository.takeOut("d1");
        handler.createDirectory(root, "a", true);
        Files.createFile(Path.of(handler.createLocation(root, "b", true).orElseThrow()));
        repository.putBack("d1");
        assertEquals(List.of("z", "a"), handler.listDirs(root, false));
        assertEquals(List.of("a", "z"), handler.listDirs(root, true));
        assertEquals(List.of("y", "b"), handler.listFiles(root, false));
        assertEquals(List.of("b", "y"), handler.listFiles(root, true));
        assertThrows(UnsupportedOperationException.class, () -> handler.listDirs(root, true).clear());
    }

    @Test
    void missingDisksShowInTheStatusOfTheRepository() {
        TestRepository repository = TestRepository.in(directory);
        assertEquals(0, handler.getRepositoryStatus(repository.root));
        repository.takeOut("d2");
        assertEquals(RepositoryHandler.STATUS_INCOMPLETE, handler.getRepositoryStatus(repository.root));
        repository.takeOut("d1");
        assertEquals(RepositoryHandler.STATUS_MISSING, handler.getRepositoryStatus(repository.root));
    }

    @Test
    void withoutADiskNothingIsCreated() {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        repository.takeOut("d2");
        assertEquals(Optional.empty(), handler.createLocation(repository.root, ID, false));
        assertEquals(RepositoryHandler.NOT_CREATED, handler.status);
        handler.status = RepositoryHandler.FOUND;
        assertEquals(Optional.empty(), handler.createDirectory(repository.root, ID, false));
        assertEquals(RepositoryHandler.NOT_CREATED, handler.status);
    }

    @Test
    void noDirtyMarkIsHandedOn() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        handler.createDirectory(repository.root, "marked", false);
        handler.createDirectory(repository.root, "clean", true);
        handler.createLocation(repository.root, ID, false);
        TestRepository.write(repository.place("d2"), "");
        Files.createFile(Path.of(handler.createLocation(repository.root, "clean file", true).orElseThrow()));
        assertEquals(RepositoryHandler.DIRTY, handler.checkResourceStatus(repository.root, "marked"));
        assertEquals(RepositoryHandler.DIRTY, handler.removeResource(repository.root, "marked"));
        assertEquals(RepositoryHandler.FOUND, handler.checkResourceStatus(repository.root, "clean"));
        assertEquals(RepositoryHandler.FOUND, handler.checkResourceStatus(repository.root, "clean file"));
        assertTrue(handler.getLocation(repository.root, ID).isPresent());
        assertEquals(RepositoryHandler.DIRTY, handler.status);
    }

    @Test
    void copiesThatCannotBeJoinedAreAConflict() {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d1");
        handler.createDirectory(repository.root, ID, false);
        TestRepository.write(repository.place("d1"), "");
        repository.putBack("d1");
        assertEquals(Optional.empty(), handler.getLocation(repository.root, ID));
        assertEquals(RepositoryHandler.CONFLICT, handler.status);
        assertEquals(RepositoryHandler.CONFLICT, handler.checkResourceStatus(repository.root, ID));
    }

    @Test
    void aResourceThatAnotherProcessHoldsIsNotLocked() {
        TestRepository repository = TestRepository.in(directory);
        String root = repository.root;
        handler.createDirectory(root, ID, false);
        repository.lock(ID);
        try {
            assertEquals(Optional.empty(), handler.getLocation(root, ID));
            assertEquals(RepositoryHandler.NOT_LOCKED, handler.status);
            assertEquals(Optional.empty(), handler.createLocation(root, ID, false));
            assertEquals(RepositoryHandler.NOT_LOCKED, handler.status);
            assertEquals(Optional.empty(), handler.createDirectory(root, ID, false));
            assertEquals(RepositoryHandler.NOT_LOCKED, handler.status);
            assertEquals(RepositoryHandler.NOT_LOCKED, handler.checkResourceStatus(root, ID));
            assertEquals(RepositoryHandler.NOT_LOCKED, handler.removeResource(root, ID));
        } finally {
            repository.unlock(ID);
        }
    }

    // Failures

    @Test
    void aRepositoryThatCannotBeUsedThrowsAndIsNamed() {
        String root = TestRepository.broken(directory).root;
        Stream.<Executable>of(
                        () -> handler.getLocation(root, ID),
                        () -> handler.createLocation(root, ID, false),
                        () -> handler.createDirectory(root, ID, false))
                .forEach(call -> {
                    handler.status = RepositoryHandler.FOUND;
                    assertNames(root + ", resource " + ID, call);
                    assertEquals(RepositoryHandler.FAILED, handler.status);
                });
        assertNames(root + ", resource " + ID, () -> handler.removeResource(root, ID));
        assertNames(root + ", resource " + ID, () -> handler.checkResourceStatus(root, ID));
        assertNames(root, () -> handler.getRepositoryStatus(root));
        assertNames(root, () -> handler.listDirs(root, true));
        assertNames(root, () -> handler.listFiles(root, true));
    }

    @Test
    void itHasNoTimesAndTakesNone() {
        String root = TestRepository.broken(directory).root;
        assertTrue(handler.getTimes(root, ID).isEmpty());
        handler.setTimes(root, ID, USED, CHANGED);
    }

    @Test
    void nullIsRefusedBeforeTheLibraryIsCalled() {
        Preloaded.takeMessages();
        String root = TestRepository.in(directory).root;
        Stream.<Executable>of(
                        () -> handler.getLocation(null, ID),
                        () -> handler.getLocation(root, null),
                        () -> handler.createLocation(null, ID, false),
                        () -> handler.createLocation(root, null, false),
                        () -> handler.createDirectory(null, ID, false),
                        () -> handler.createDirectory(root, null, false),
                        () -> handler.removeResource(null, ID),
                        () -> handler.removeResource(root, null),
                        () -> handler.checkResourceStatus(null, ID),
                        () -> handler.checkResourceStatus(root, null),
                        () -> handler.getRepositoryStatus(null),
                        () -> handler.getTimes(null, ID),
                        () -> handler.getTimes(root, null),
                        () -> handler.setTimes(null, ID, USED, CHANGED),
                        () -> handler.setTimes(root, null, USED, CHANGED),
                        () -> handler.setTimes(root, ID, null, CHANGED),
                        () -> handler.setTimes(root, ID, USED, null),
                        () -> handler.listDirs(null, true),
                        () -> handler.listFiles(null, true))
                .forEach(call -> assertThrows(NullPointerException.class, call));
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    private static void assertNames(String what, Executable call) {
        String message = assertThrows(UncheckedIOException.class, call).getMessage();
        assertTrue(message.contains(what + ": "), message);
    }
}
