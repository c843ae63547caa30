// A client and a server of SOAP with attachments on whichever SAAJ the class path holds.
//   client URL VERSION CHUNKED FILE...   posts an envelope with files, prints the answer
//   server VERSION CHUNKED               prints its port; sends back what it gets
import com.sun.net.httpserver.HttpServer;
import java.io.ByteArrayOutputStream;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.InetSocketAddress;
import java.net.URL;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.util.Iterator;
import java.util.List;
import java.util.Map;
import javax.activation.DataHandler;
import javax.mail.util.ByteArrayDataSource;
import javax.xml.soap.*;

class Soap {
    static MessageFactory factory(String version) throws Exception {
        if (version.equals("1.1")) return MessageFactory.newInstance();
        return (MessageFactory) MessageFactory.class.getMethod("newInstance", String.class)
            .invoke(null, "SOAP 1.2 Protocol");
    }

    static void attach(SOAPMessage message, byte[] bytes, String id) {
        AttachmentPart part = message.createAttachmentPart(
            new DataHandler(new ByteArrayDataSource(bytes, "application/octet-stream")));
        boolean isAxis = message.getClass().getName().contains("axis");  // adds them itself
        part.setContentId(isAxis ? id : "<" + id + ">");
        message.addAttachmentPart(part);
    }

    static String id(AttachmentPart part) {
        return part.getContentId().replaceAll("[<>]", "");
    }

    static byte[] bytes(AttachmentPart part) throws Exception {
        return part.getDataHandler().getInputStream().readAllBytes();
    }

    static SOAPMessage read(String version, Map<String, List<String>> fields, InputStream in)
        throws Exception {
        MimeHeaders headers = new MimeHeaders();
        for (Map.Entry<String, List<String>> field : fields.entrySet())
            for (String value : field.getValue())
                if (field.getKey() != null) headers.addHeader(field.getKey(), value);
        return factory(version).createMessage(headers, in);
    }

    static byte[] write(SOAPMessage message) throws Exception {
        message.saveChanges();
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        message.writeTo(out);
        return out.toByteArray();
    }

    static String type(SOAPMessage message) {
        return message.getMimeHeaders().getHeader("Content-Type")[0];
    }

    static void client(String[] args) throws Exception {
        SOAPMessage message = factory(args[2]).createMessage();
        message.getSOAPPart().getEnvelope().getBody().addChildElement("ask", "t", "urn:t");
        for (int i = 4; i < args.length; ++i)
            attach(message, Files.readAllBytes(Path.of(args[i])), "part" + i + "@java");
        byte[] body = write(message);
        HttpURLConnection connection = (HttpURLConnection) new URL(args[1]).openConnection();
        connection.setDoOutput(true);
        connection.setRequestProperty("Content-Type", type(message));
        connection.setRequestProperty("SOAPAction", "\"urn:ask\"");
        if (args[3].equals("chunked")) connection.setChunkedStreamingMode(1000);
        try (OutputStream out = connection.getOutputStream()) { out.write(body); }
        SOAPMessage answer =
            read(args[2], connection.getHeaderFields(), connection.getInputStream());
        System.out.println(connection.getResponseCode() + " " + ((SOAPElement) answer.getSOAPPart()
            .getEnvelope().getBody().getChildElements().next()).getElementName().getLocalName());
        for (Iterator<?> parts = answer.getAttachments(); parts.hasNext();) {
            AttachmentPart part = (AttachmentPart) parts.next();
            byte[] digest = MessageDigest.getInstance("SHA-256").digest(bytes(part));
            System.out.println(id(part) + " " + new java.math.BigInteger(1, digest));
        }
    }

    static void server(String[] args) throws Exception {
        HttpServer server = HttpServer.create(new InetSocketAddress("127.0.0.1", 0), 0);
        server.createContext("/", exchange -> {
            try {
                SOAPMessage came =
                    read(args[1], exchange.getRequestHeaders(), exchange.getRequestBody());
                SOAPMessage answer = factory(args[1]).createMessage();
                answer.getSOAPPart().getEnvelope().getBody().addChildElement(
                    ((SOAPElement) came.getSOAPPart().getEnvelope().getBody().getChildElements()
                        .next()).getElementName());
                for (Iterator<?> parts = came.getAttachments(); parts.hasNext();) {
                    AttachmentPart part = (AttachmentPart) parts.next();
                    attach(answer, bytes(part), id(part));
                }
                byte[] body = write(answer);
                exchange.getResponseHeaders().set("Content-Type", type(answer));
                exchange.sendResponseHeaders(200, args[2].equals("chunked") ? 0 : body.length);
                exchange.getResponseBody().write(body);
            } catch (Throwable e) {
                e.printStackTrace();
                exchange.sendResponseHeaders(500, -1);
            }
            exchange.close();
        });
        server.start();
        System.out.println(server.getAddress().getPort());
    }

    public static void main(String[] args) throws Exception {
        if (args[0].equals("client")) client(args);
        else server(args);
    }
}
