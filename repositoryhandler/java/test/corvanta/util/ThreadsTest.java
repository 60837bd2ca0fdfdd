package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.FutureTask;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.io.TempDir;

/** Java threads that call the readable methods at once. */
@Timeout(200)
class ThreadsTest {
    private static final int THREADS = 4;
    private static final int ROUNDS = 100;

    @TempDir
    Path directory;

    // The library forgets a repository with a disk away after every call, so two calls at once would use freed memory.
    @Test
    void callsOfManyThreadsAnswerAsIfAlone() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        repository.takeOut("d2");
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        List<Future<Integer>> results = new ArrayList<>();
        for (int number = 0; number < THREADS; ++number) {
            String id = "thread" + number;
            results.add(threads.submit(() -> liveAndDie(repository.root, id)));
        }
        for (Future<Integer> result : results) {
            assertEquals(ROUNDS, result.get());
        }
        threads.shutdown();
        assertEquals(List.of(), new RepositoryHandler().listDirs(repository.root, true));
    }

    @Test
    void aCallWaitsForTheOneThatIsInTheLibrary() throws Exception {
        TestRepository repository = TestRepository.in(directory);
        FutureTask<Integer> first = new FutureTask<>(
                () -> new RepositoryHandler().checkResourceStatus(repository.root, TestRepository.ID));
        FutureTask<List<String>> second = new FutureTask<>(
                () -> new RepositoryHandler().listDirs(repository.root, true));
        repository.lock(TestRepository.ID);
        Thread inside = start(first);
        while (!isInNative(inside)) {
            Thread.onSpinWait();
        }
        Thread waiting = start(second);
        while (waiting.getState() != Thread.State.BLOCKED && !second.isDone()) {
            Thread.onSpinWait();
        }
        boolean waited = !second.isDone();
        repository.unlock(TestRepository.ID);
        assertEquals(RepositoryHandler.NOT_FOUND, first.get());
        assertEquals(List.of(), second.get());
        assertTrue(waited);
    }

    private static Thread start(Runnable task) {
        Thread thread = new Thread(task);
        thread.start();
        return thread;
    }

    private static boolean isInNative(Thread thread) {
        StackTraceElement[] stack = thread.getStackTrace();
        return stack.length > 0 && stack[0].getMethodName().equals("checkResourceStatusNative");
    }

    /** Makes, finds and removes a resource again and again. Returns how many rounds had all the right answers. */
    private static int liveAndDie(String root, String id) {
        RepositoryHandler handler = new RepositoryHandler();
        int right = 0;
        for (int round = 0; round < ROUNDS; ++round) {
            String path = handler.createDirectory(root, id, true).orElse("none");
            boolean isThere = path.endsWith("/" + id) && Files.isDirectory(Path.of(path));
            boolean isFound = handler.getLocation(root, id).orElse("none").equals(path)
                    && handler.status == RepositoryHandler.FOUND
                    && handler.listDirs(root, true).contains(id);
            boolean isGone = handler.removeResource(root, id) == RepositoryHandler.FOUND
                    && handler.checkResourceStatus(root, id) == RepositoryHandler.NOT_FOUND;
            right += isThere && isFound && isGone ? 1 : 0;
        }
        return right;
    }
}
