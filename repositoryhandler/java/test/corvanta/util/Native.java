package corvanta.util;

import java.util.Locale;

/** The ten natives: how each is called, and what it answers and logs when its call throws in the library. */
enum Native {
    SET_TIMES(null, "setTimeProperties_(%s, %s)", (handler, repository, resource) -> {
        handler.setTimePropertiesNative(repository, resource, new int[] {1000000001, 1000000002});
        return null;
    }),
    GET_TIMES(null, "getTimeProperties_(%s, %s)", RepositoryHandler::getTimePropertiesNative),
    LIST_DIRS(null, "listDirs_(%s)", (handler, repository, resource) -> handler.listDirsNative(repository, true)),
    LIST_FILES(null, "listFiles_(%s)", (handler, repository, resource) -> handler.listFilesNative(repository, true)),
    REMOVE(-1, "removeResource_(%s, %s)", RepositoryHandler::removeResourceNative),
    CHECK(-1, "checkResourceStatus_(%s, %s)", RepositoryHandler::checkResourceStatusNative),
    REPOSITORY_STATUS(-1, "checkRepositoryStatus_(%s)",
            (handler, repository, resource) -> handler.getRepositoryStatusNative(repository)),
    GET_LOCATION(null, "getLocation_(%s, %s)", RepositoryHandler::getLocationNative),
    CREATE_LOCATION(null, "createLocation_(%s, %s)",
            (handler, repository, resource) -> handler.createLocationNative(repository, resource, false)),
    CREATE_DIRECTORY(null, "createDirectory_(%s, %s)",
            (handler, repository, resource) -> handler.createDirectoryNative(repository, resource, false));

    interface Call {
        Object on(RepositoryHandler handler, String repository, String resource);
    }

    /** What it answers when the call throws; null also for the one that answers nothing. */
    final Object failure;

    private final String call;
    private final Call method;

    Native(Object failure, String call, Call method) {
        this.failure = failure;
        this.call = call;
        this.method = method;
    }

    Object on(RepositoryHandler handler, String repository, String resource) {
        return method.on(handler, repository, resource);
    }

    /** The one line of the log when the call throws. */
    String caught(String repository, String resource) {
        return String.format(Locale.ROOT, "3 An exception was caught in " + call, inC(repository), inC(resource));
    }

    private static String inC(String text) {
        return text == null ? "(null)" : text;
    }
}
