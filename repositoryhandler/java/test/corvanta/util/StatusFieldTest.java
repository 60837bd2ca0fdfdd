package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileTime;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * The natives that store a code, in a class {@code RepositoryHandler} without an int field {@code status}: run apart,
 * with such a class in the place of ours.
 */
class StatusFieldTest {
    private static final String ID = TestRepository.ID;

    @TempDir
    Path directory;

    private final RepositoryHandler handler = new RepositoryHandler();

    @BeforeEach
    void forgetMessages() {
        Preloaded.takeMessages();
    }

    @AfterEach
    void nothingIsLogged() {
        assertEquals(List.of(), Preloaded.takeMessages());
    }

    @Test
    void getLocationThrowsAfterItMarkedTheResourceUsed() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        TestRepository.write(repository.place("d1"), "");
        Files.setLastModifiedTime(repository.place("d1"), FileTime.fromMillis(0));
        assertThrows(NoSuchFieldError.class, () -> handler.getLocationNative(repository.root, ID));
        assertTrue(Files.getLastModifiedTime(repository.place("d1")).toMillis() > 0);
    }

    @Test
    void createLocationThrowsAfterItMadeTheDirectoriesAbove() {
        TestRepository repository = TestRepository.in(directory);
        assertThrows(NoSuchFieldError.class, () -> handler.createLocationNative(repository.root, ID, false));
        assertTrue(Files.isDirectory(repository.place("d1").getParent()));
    }

    @Test
    void createDirectoryThrowsAfterItMadeTheDirectory() {
        TestRepository repository = TestRepository.in(directory);
        assertThrows(NoSuchFieldError.class, () -> handler.createDirectoryNative(repository.root, ID, false));
        assertTrue(Files.isDirectory(repository.place("d1")));
    }

    @Test
    void aMissingResourceThrowsToo() {
        String root = TestRepository.in(directory).root;
        assertThrows(NoSuchFieldError.class, () -> handler.getLocationNative(root, ID));
    }
}
