package kor.plox.ldm.tool;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The {@code korjnidr} command: decode smart card calls, replay a capture through the library,
 * check what redirection needs on this machine, and watch folders for changes.
 * Errors are one line on standard error and a non-zero exit status.
 */
public final class Korjnidr {
    private Korjnidr() {
    }

    static final String USAGE = """
            usage: korjnidr COMMAND [OPTIONS]

            commands:
              decode   print a smart card call with its fields named
              replay   run a capture of requests through the library against local PC/SC
              doctor   check what redirection needs on this machine
              watch    print the changes that the change watcher reports for folders

            korjnidr COMMAND --help describes each command.
            """;

    static final Map<String, String> HELP = Map.of(
            "decode", """
            usage: korjnidr decode --code CODE (--request | --reply) [HEX | @FILE | -] [--json]
                   korjnidr decode --capture FILE [--json]

            Prints a smart card call, request or reply, with its fields named as in the channel's
            IDL. CODE is the I/O control code (208, 0xD0, 0x000900D0) or the call's name
            (Transmit). The bytes are hexadecimal (spaces allowed) given on the command line, in
            FILE (@FILE) or on standard input (- or nothing). --capture decodes every request of
            a capture file (see replay --help). --json prints one JSON object per call.
            Exit status 1 when a buffer is malformed: where decoding stopped and why goes to
            standard error.
            """,
            "replay", """
            usage: korjnidr replay CAPTURE [--json]

            Runs the requests of CAPTURE through the library against the local PC/SC stack, as
            one session. CAPTURE has one request per line, four tab-separated columns: an id, the
            I/O control code, the request length and the request in hexadecimal; lines starting
            with # are comments. Context and card handles are replaced by the ones the library
            gave out in this session, reader names by a present reader's (in the call's width,
            except the \\\\?PnP?\\Notification pseudo-reader), and the send PCI's protocol by the
            one Connect chose. Prints each call decoded, request and reply, with its time, then a
            summary. Exit status 1 when a call fails.
            """,
            "doctor", """
            usage: korjnidr doctor [--json]

            Checks, in order: the native library, libpcsclite.so.1, the PC/SC daemon (an
            EstablishContext through the library), the readers, each reader's card (state, ATR,
            protocol), the locale's character set and the inotify limits. Says what is wrong and
            how to fix it. Exit status 0 when nothing failed (warnings allowed), 1 otherwise.
            """,
            "watch", """
            usage: korjnidr watch DIR... [--filter name,dir,attributes,size,write,access,security]
                                        [--count N]

            Watches each DIR (tag 1, 2, ... in the order given) and prints each change the
            watcher reports with its tag, until interrupted or after N changes. The default
            filter is name,dir,size,write.
            """);

    /** A failure to report on one line with exit status 1. */
    static final class Failure extends RuntimeException {
        private static final long serialVersionUID = 1L;

        Failure(String message) {
            super(message, null, false, false);
        }
    }

    /** Command-line options: {@code --name value}, {@code --flag}, and positional arguments. */
    static final class Options {
        final Map<String, String> named = new HashMap<>();
        final List<String> positional = new ArrayList<>();

        Options(String[] args, List<String> flags, List<String> valued) {
            for (int i = 0; i < args.length; i++) {
                String a = args[i];
                if (flags.contains(a)) {
                    named.put(a, "");
                } else if (valued.contains(a)) {
                    boolean hasValue = i + 1 < args.length && (!args[i + 1].startsWith("--"));
                    named.put(a, hasValue ? args[++i] : "-");
                } else if (a.startsWith("--")) {
                    throw new IllegalArgumentException("unknown option " + a);
                } else {
                    positional.add(a);
                }
            }
        }

        boolean has(String name) {
            return named.containsKey(name);
        }
    }

    public static void main(String[] args) {
        System.exit(run(args, System.out, System.err));
    }

    /** Runs one command; returns its exit status. */
    public static int run(String[] args, PrintStream out, PrintStream err) {
        if (args.length == 0 || args[0].equals("--help") || args[0].equals("-h")) {
            (args.length == 0 ? err : out).print(USAGE);
            return args.length == 0 ? 2 : 0;
        }
        String command = args[0];
        String[] rest = java.util.Arrays.copyOfRange(args, 1, args.length);
        if (!HELP.containsKey(command)) {
            err.println("korjnidr: unknown command " + command + " (korjnidr --help lists them)");
            return 2;
        }
        if (List.of(rest).contains("--help")) {
            out.print(HELP.get(command));
            return 0;
        }
        try {
            return switch (command) {
                case "decode" -> decode(new Options(rest, List.of("--json"),
                        List.of("--code", "--request", "--reply", "--capture")), out, err);
                case "replay" -> new Replay(out, err, new Options(rest, List.of("--json"), List.of())).run();
                case "doctor" -> new Doctor(out, new Options(rest, List.of("--json"), List.of()).has("--json")).run();
                default -> Watch.run(new Options(rest, List.of(), List.of("--filter", "--count")), out);
            };
        } catch (IllegalArgumentException e) {
            err.println("korjnidr " + command + ": " + e.getMessage() + " (korjnidr " + command + " --help)");
            return 2;
        } catch (Failure | IllegalStateException | IOException e) {
            err.println("korjnidr " + command + ": " + e.getMessage());
            return 1;
        } catch (UnsatisfiedLinkError e) {
            err.println("korjnidr " + command + ": libkorjnidr.so cannot be loaded: " + e.getMessage());
            return 1;
        }
    }

    static byte[] input(String value) throws IOException {
        String text;
        if (value.equals("-")) text = new String(System.in.readAllBytes(), StandardCharsets.US_ASCII);
        else if (value.startsWith("@")) text = Files.readString(Path.of(value.substring(1)), StandardCharsets.US_ASCII);
        else text = value;
        return Capture.unhex(text);
    }

    static int decode(Options o, PrintStream out, PrintStream err) throws IOException {
        boolean json = o.has("--json");
        List<Decoder.Decoded> calls = new ArrayList<>();
        if (o.has("--capture")) {
            for (Capture.Request r : Capture.read(Path.of(o.named.get("--capture")))) {
                calls.add(Decoder.request(r.ioctl(), r.bytes()));
            }
        } else {
            if (!o.has("--code")) throw new IllegalArgumentException("--code is needed");
            if (o.has("--request") == o.has("--reply")) throw new IllegalArgumentException("give one of --request and --reply");
            int code = Decoder.parseCode(o.named.get("--code"));
            boolean request = o.has("--request");
            byte[] bytes = input(o.named.get(request ? "--request" : "--reply"));
            calls.add(request ? Decoder.request(code, bytes) : Decoder.reply(code, bytes));
        }
        int status = 0;
        for (Decoder.Decoded d : calls) {
            out.print(json ? d.json() + "\n" : d.text());
            if (d.error != null) {
                err.println("korjnidr decode: " + d.title() + ": decoding stopped at offset " + d.errorOffset + ": " + d.error);
                status = 1;
            } else if (!d.complete()) {
                err.println("korjnidr decode: " + d.title() + ": " + d.note);
                status = 1;
            }
        }
        return status;
    }
}
