package kor.plox.ldm.tool;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * {@code korjnidr replay}: a capture of requests run through the library as one session, with
 * what belongs to the captured machine (handles, reader names, the chosen protocol) replaced by
 * what this session has.
 */
final class Replay {
    private static final String PNP = "\\\\?PnP?\\Notification";
    private final PrintStream out;
    private final PrintStream err;
    private final Korjnidr.Options options;
    private final boolean json;
    /** Captured wire handles to this session's, bound when first seen to the latest given out. */
    private final Map<Long, Integer> contexts = new HashMap<>();
    private final Map<Long, Integer> cards = new HashMap<>();
    private final Map<Integer, Integer> protocols = new HashMap<>();
    private int lastContext = -1;
    private int lastCard = -1;
    private List<String> readers = List.of();

    Replay(PrintStream out, PrintStream err, Korjnidr.Options options) {
        this.out = out;
        this.err = err;
        this.options = options;
        this.json = options.has("--json");
    }

    int run() throws IOException {
        if (options.positional.size() != 1) throw new IllegalArgumentException("give one capture file");
        List<Capture.Request> capture = Capture.read(Path.of(options.positional.get(0)));
        Map<String, Integer> failures = new TreeMap<>();
        boolean progress = System.console() != null && capture.size() > 20;
        try (Session s = Session.open()) {
            readers = presentReaders(s);
            for (int i = 0; i < capture.size(); i++) {
                Capture.Request r = capture.get(i);
                Session.Exchange e = s.call(r.ioctl(), patch(r.ioctl() & 0xFFFF, r.bytes()));
                learn(e);
                String failure = e.refused() != null ? "refused by the library"
                        : !e.decodedReply().complete() ? "reply not decoded"
                        : e.ok() || e.reply().length == 0 ? null : Names.resultName(e.result());
                if (failure != null) failures.merge(failure, 1, Integer::sum);
                print(i + 1, capture.size(), r, e);
                if (progress) err.printf("\rreplay: %d/%d", i + 1, capture.size());
            }
        }
        if (progress) err.println();
        summary(capture.size(), failures);
        if (failures.isEmpty()) return 0;
        int failed = failures.values().stream().mapToInt(Integer::intValue).sum();
        throw new Korjnidr.Failure(failed + " of " + capture.size() + " calls failed");
    }

    private List<String> presentReaders(Session s) {
        Session.Exchange[] failed = {null};
        int context = s.establish(failed);
        if (context < 0) {
            throw new Korjnidr.Failure("EstablishContext answered " + Names.result(failed[0].result() == null ? -1
                    : failed[0].result()) + ": is the PC/SC daemon running? (korjnidr doctor)");
        }
        List<String> present = s.readers(context);
        s.call(Rdpesc.RELEASE_CONTEXT, Rdpesc.context(context));
        if (present.isEmpty()) throw new Korjnidr.Failure("no reader is present (korjnidr doctor)");
        return present;
    }

    /** The request with this session's handles, a present reader's name and the card's protocol. */
    byte[] patch(int code, byte[] request) {
        Decoder.Decoded d = Decoder.request(code, request);
        byte[] b = request.clone();
        int card = -1;
        List<Decoder.Field> names = new ArrayList<>();
        for (Decoder.Field f : d.fields) {
            String n = f.name();
            if (n.startsWith("*") && n.endsWith("Context.pbContext")) {
                put(b, f.offset() + 4, contexts.computeIfAbsent((Long) f.value(), k -> lastContext));
            } else if (n.equals("*hCard.pbHandle")) {
                card = cards.computeIfAbsent((Long) f.value(), k -> lastCard);
                put(b, f.offset() + 4, card);
            } else if (n.endsWith("szReader") && n.startsWith("*")) {
                String name = ((String) f.value()).replace("\0", "");
                if (!readers.contains(name) && !name.equals(PNP)) names.add(f);
            }
        }
        Decoder.Field pci = d.field("ioSendPci.dwProtocol");
        if (pci != null && protocols.containsKey(card)) put(b, pci.offset(), protocols.get(card));
        boolean wide = d.call.endsWith("W");
        for (int i = names.size() - 1; i >= 0; i--) {
            b = splice(b, names.get(i), Rdpesc.call().string(readers.get(0), wide).build());
        }
        put(b, 8, b.length - 16);
        return b;
    }

    /** Replaces a string's whole encoding (counts, characters, pad) by another's. */
    private static byte[] splice(byte[] b, Decoder.Field f, byte[] encoded) {
        byte[] replacement = java.util.Arrays.copyOfRange(encoded, 16, encoded.length);
        byte[] out = new byte[b.length - f.size() + replacement.length];
        System.arraycopy(b, 0, out, 0, f.offset());
        System.arraycopy(replacement, 0, out, f.offset(), replacement.length);
        System.arraycopy(b, f.offset() + f.size(), out, f.offset() + replacement.length, b.length - f.offset() - f.size());
        return out;
    }

    private static void put(byte[] b, int at, int v) {
        for (int i = 0; i < 4; i++) b[at + i] = (byte) (v >>> (8 * i));
    }

    /** Takes note of the handles that a successful reply gives out or that a call ends. */
    private void learn(Session.Exchange e) {
        if (!e.ok()) return;
        int code = e.code() & 0xFFFF;
        if (code == 20) {
            lastContext = (int) e.value("*Context.pbContext");
        } else if (code == 172 || code == 176) {
            lastCard = (int) e.value("*hCard.pbHandle");
            protocols.put(lastCard, (int) e.value("dwActiveProtocol"));
        } else if (code == 24) {
            int wire = requestWire(e, "*Context.pbContext");
            contexts.values().removeIf(v -> v == wire);
        } else if (code == 184) {
            int wire = requestWire(e, "*hCard.pbHandle");
            cards.values().removeIf(v -> v == wire);
        }
    }

    private static int requestWire(Session.Exchange e, String field) {
        Decoder.Field f = e.decodedRequest().field(field);
        return f == null ? -1 : ((Long) f.value()).intValue();
    }

    private void print(int n, int total, Capture.Request r, Session.Exchange e) {
        Decoder.Decoded request = e.decodedRequest();
        Decoder.Decoded reply = e.decodedReply();
        String outcome = e.refused() != null ? e.refused()
                : e.reply().length == 0 ? "empty reply" : Names.resultName(e.result());
        if (json) {
            out.println(new Decoder.Json().put("index", n).put("id", r.id()).put("call", request.call)
                    .put("micros", e.nanos() / 1000).put("outcome", outcome).raw("request", request.json())
                    .raw("reply", reply == null ? "null" : reply.json()));
            return;
        }
        out.printf("[%d/%d] %s: %s, %s, %s%n", n, total, r.id(), request.call, e.millis(), outcome);
        out.print(indent(request.text()));
        if (reply != null) out.print(indent(reply.text()));
    }

    private static String indent(String text) {
        return text.replaceAll("(?m)^", "    ");
    }

    private void summary(int calls, Map<String, Integer> failures) {
        int failed = failures.values().stream().mapToInt(Integer::intValue).sum();
        if (json) {
            Decoder.Json f = new Decoder.Json();
            failures.forEach(f::put);
            out.println(new Decoder.Json().put("calls", calls).put("failed", failed).raw("failures", f.toString()));
            return;
        }
        List<String> each = new ArrayList<>();
        failures.forEach((code, n) -> each.add(n + " x " + code));
        out.printf("%d calls, %d failed%s%n", calls, failed, each.isEmpty() ? "" : ": " + String.join(", ", each));
    }
}
