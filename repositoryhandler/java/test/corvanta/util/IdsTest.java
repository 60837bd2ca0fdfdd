package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Ids and repositories with characters beyond ASCII: which bytes they are on disk, and that they come back. */
class IdsTest {
    private static final String BEYOND_FFFF = "x\ud83d\udcc4y"; // U+1F4C4
    private static final String WITH_NUL = "a\0b";

    @TempDir
    Path directory;

    private final RepositoryHandler handler = new RepositoryHandler();

    @ParameterizedTest
    @ValueSource(strings = {"caf\u00e9", "\u0434\u043e\u0433\u043e\u0432\u043e\u0440", "\u6587\u66f8"})
    void lettersOfAnyAlphabetAreUtf8(String id) {
        TestRepository repository = TestRepository.in(directory);
        assertComesBack(repository, id);
        assertEquals(id, repository.namesOnDisk(StandardCharsets.UTF_8));
    }

    @ParameterizedTest
    @ValueSource(strings = {"caf\u00e9", "\u0434\u043e\u0433\u043e\u0432\u043e\u0440", "\u6587\u66f8"})
    void aPathWithThemCanBeOpened(String id) throws Exception {
        TestRepository repository = TestRepository.named(directory.resolve("r\u00e9p-\u6587"));
        Path path = Path.of(handler.createDirectoryNative(repository.root, id, false));
        Files.createFile(path.resolve("content"));
        assertEquals(path.toString(), handler.getLocationNative(repository.root, id));
    }

    @Test
    void aCharacterBeyondFfffIsTwiceThreeBytes() {
        TestRepository repository = TestRepository.in(directory);
        assertComesBack(repository, BEYOND_FFFF);
        assertEquals("x\u00ed\u00a0\u00bd\u00ed\u00b3\u0084y", repository.namesOnDisk(StandardCharsets.ISO_8859_1));
    }

    @Test
    void anIdWithNulIsNotCutThere() {
        TestRepository repository = TestRepository.in(directory);
        assertComesBack(repository, WITH_NUL);
        assertEquals("a\u00c0\u0080b", repository.namesOnDisk(StandardCharsets.ISO_8859_1));
        assertNull(handler.getLocationNative(repository.root, "a"));
    }

    @Test
    void messagesShowTheBytes() {
        Preloaded.takeMessages();
        String root = TestRepository.broken(directory).root;
        handler.getLocationNative(root, "caf\u00e9");
        assertEquals(List.of(Native.GET_LOCATION.caught(root, "caf\u00c3\u00a9")), Preloaded.takeMessages());
    }

    /** Every native that takes an id finds the one that was made. */
    private void assertComesBack(TestRepository repository, String id) {
        String root = repository.root;
        String path = handler.createDirectoryNative(root, id, false);
        assertTrue(path.endsWith("/" + id), path);
        assertEquals(path, handler.createLocationNative(root, id, false));
        assertEquals(path, handler.getLocationNative(root, id));
        assertEquals(0, handler.checkResourceStatusNative(root, id));
        handler.setTimePropertiesNative(root, id, new int[] {1000000001, 1000000002});
        assertArrayEquals(new int[] {1000000001, 1000000002}, handler.getTimePropertiesNative(root, id));
        assertArrayEquals(new String[] {id}, handler.listDirsNative(root, true));
        assertEquals(0, handler.removeResourceNative(root, id));
        handler.createDirectoryNative(root, id, false); // for the look at the disk
    }
}
