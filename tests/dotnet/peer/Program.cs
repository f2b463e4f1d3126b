// Prints what System.Reflection.Metadata finds in .NET assemblies, in the
// line format of quarvel_dotnet_dump, so that the two can be compared byte for
// byte:
//
//   assembly <path as given>
//   error                                    (not a readable .NET assembly)
//   pdb <none | embedded | file name of the PDB used>
//   document <rid> <language guid> <name>
//   method <token> <declaring type> <name> <signature> <return type> <rva> <IL size>
//   point <token> <IL offset> <document rid> <line:column-line:column | hidden>
//
// Fields are separated by tabs. `MetadataPeer --runtime-dir` prints the
// directory of the shared framework this tool runs on.
using System;
using System.Collections.Generic;
using System.Collections.Immutable;
using System.IO;
using System.Reflection;
using System.Reflection.Metadata;
using System.Reflection.Metadata.Ecma335;
using System.Reflection.PortableExecutable;
using System.Text;

namespace Quarvel.Peer
{
    internal static class Program
    {
        private static int Main(string[] args)
        {
            if (args.Length == 1 && args[0] == "--runtime-dir")
            {
                Console.WriteLine(Path.GetDirectoryName(typeof(object).Assembly.Location));
                return 0;
            }
            var output = new StreamWriter(Console.OpenStandardOutput(), new UTF8Encoding(false), 1 << 16);
            output.NewLine = "\n";
            foreach (string path in args)
                Dump(path, output);
            output.Flush();
            return 0;
        }

        private static void Dump(string path, TextWriter output)
        {
            output.WriteLine("assembly\t" + path);
            var lines = new List<string>();
            try
            {
                using var stream = File.OpenRead(path);
                using var pe = new PEReader(stream);
                if (!pe.HasMetadata)
                {
                    output.WriteLine("error");
                    return;
                }
                MetadataReader md = pe.GetMetadataReader();
                MetadataReaderProvider pdbProvider = null;
                string pdbLabel = "none";
                if (pe.TryOpenAssociatedPortablePdb(path, p => File.Exists(p) ? File.OpenRead(p) : null,
                                                    out pdbProvider, out string pdbPath))
                    pdbLabel = pdbPath == null ? "embedded" : Path.GetFileName(pdbPath);
                lines.Add("pdb\t" + pdbLabel);
                MetadataReader pdb = pdbProvider?.GetMetadataReader();
                if (pdb != null)
                {
                    foreach (DocumentHandle h in pdb.Documents)
                    {
                        Document doc = pdb.GetDocument(h);
                        lines.Add("document\t" + MetadataTokens.GetRowNumber(h) + "\t" + pdb.GetGuid(doc.Language) +
                                  "\t" + pdb.GetString(doc.Name));
                    }
                }
                var names = new SignatureText(md);
                foreach (MethodDefinitionHandle h in md.MethodDefinitions)
                {
                    int token = MetadataTokens.GetToken(h);
                    MethodDefinition method = md.GetMethodDefinition(h);
                    TypeDefinitionHandle declaring = method.GetDeclaringType();
                    var context = new GenericContext(names.ParameterNames(md.GetTypeDefinition(declaring).GetGenericParameters()),
                                                     names.ParameterNames(method.GetGenericParameters()));
                    MethodSignature<string> sig = method.DecodeSignature(names, context);
                    lines.Add("method\t" + token.ToString("x8") + "\t" + names.TypeName(declaring) + "\t" +
                              md.GetString(method.Name) + "\t" + names.SignatureOf(sig, context) + "\t" +
                              sig.ReturnType + "\t" + "0x" + method.RelativeVirtualAddress.ToString("x") + "\t" +
                              IlSize(pe, method));
                    if (pdb != null && MetadataTokens.GetRowNumber(h) <= pdb.MethodDebugInformation.Count)
                    {
                        MethodDebugInformation info = pdb.GetMethodDebugInformation(h.ToDebugInformationHandle());
                        foreach (SequencePoint sp in info.GetSequencePoints())
                        {
                            string where = sp.IsHidden
                                ? "hidden"
                                : sp.StartLine + ":" + sp.StartColumn + "-" + sp.EndLine + ":" + sp.EndColumn;
                            lines.Add("point\t" + token.ToString("x8") + "\t0x" + sp.Offset.ToString("x") + "\t" +
                                      MetadataTokens.GetRowNumber(sp.Document) + "\t" + where);
                        }
                    }
                }
                pdbProvider?.Dispose();
            }
            catch (Exception e) when (e is BadImageFormatException || e is InvalidOperationException)
            {
                output.WriteLine("error");
                return;
            }
            foreach (string line in lines)
                output.WriteLine(line);
        }

        private static string IlSize(PEReader pe, MethodDefinition method)
        {
            const MethodImplAttributes codeTypeMask = MethodImplAttributes.CodeTypeMask;
            if (method.RelativeVirtualAddress == 0 || (method.ImplAttributes & codeTypeMask) != MethodImplAttributes.IL)
                return "-";
            try
            {
                return pe.GetMethodBody(method.RelativeVirtualAddress).GetILContent().Length.ToString();
            }
            catch (BadImageFormatException)
            {
                return "bad";
            }
        }
    }

    internal sealed class GenericContext
    {
        public readonly string[] TypeParameters;
        public readonly string[] MethodParameters;

        public GenericContext(string[] typeParameters, string[] methodParameters)
        {
            TypeParameters = typeParameters;
            MethodParameters = methodParameters;
        }
    }

    // Spells types the way quarvel's reader does: C# keywords for primitives,
    // metadata names (arity kept) joined with "." for namespaces and nesting.
    internal sealed class SignatureText : ISignatureTypeProvider<string, GenericContext>
    {
        private const int MaxNesting = 64;
        private readonly MetadataReader _md;

        public SignatureText(MetadataReader md) { _md = md; }

        public string[] ParameterNames(GenericParameterHandleCollection handles)
        {
            var names = new string[handles.Count];
            int i = 0;
            foreach (GenericParameterHandle h in handles)
                names[i++] = _md.GetString(_md.GetGenericParameter(h).Name);
            return names;
        }

        public string TypeName(TypeDefinitionHandle handle) => TypeName(handle, 0);

        private string TypeName(TypeDefinitionHandle handle, int depth)
        {
            TypeDefinition type = _md.GetTypeDefinition(handle);
            string own = Qualify(_md.GetString(type.Namespace), _md.GetString(type.Name));
            TypeDefinitionHandle outer = type.GetDeclaringType();
            return !outer.IsNil && depth < MaxNesting ? TypeName(outer, depth + 1) + "." + own : own;
        }

        private string TypeName(TypeReferenceHandle handle, int depth)
        {
            TypeReference type = _md.GetTypeReference(handle);
            string own = Qualify(_md.GetString(type.Namespace), _md.GetString(type.Name));
            if (type.ResolutionScope.Kind == HandleKind.TypeReference && depth < MaxNesting)
                return TypeName((TypeReferenceHandle)type.ResolutionScope, depth + 1) + "." + own;
            return own;
        }

        private static string Qualify(string ns, string name) => ns.Length == 0 ? name : ns + "." + name;

        public string SignatureOf(MethodSignature<string> sig, GenericContext context)
        {
            var text = new StringBuilder();
            if (sig.GenericParameterCount > 0)
            {
                text.Append('<');
                for (int i = 0; i < sig.GenericParameterCount; i++)
                {
                    if (i > 0)
                        text.Append(", ");
                    text.Append(GetGenericMethodParameter(context, i));
                }
                text.Append('>');
            }
            text.Append('(').Append(Parameters(sig)).Append(')');
            return text.ToString();
        }

        private static string Parameters(MethodSignature<string> sig)
        {
            var list = new List<string>(sig.ParameterTypes);
            if (sig.Header.CallingConvention == SignatureCallingConvention.VarArgs)
                list.Add("__arglist");
            return string.Join(", ", list);
        }

        public string GetPrimitiveType(PrimitiveTypeCode code) => code switch
        {
            PrimitiveTypeCode.Void => "void",
            PrimitiveTypeCode.Boolean => "bool",
            PrimitiveTypeCode.Char => "char",
            PrimitiveTypeCode.SByte => "sbyte",
            PrimitiveTypeCode.Byte => "byte",
            PrimitiveTypeCode.Int16 => "short",
            PrimitiveTypeCode.UInt16 => "ushort",
            PrimitiveTypeCode.Int32 => "int",
            PrimitiveTypeCode.UInt32 => "uint",
            PrimitiveTypeCode.Int64 => "long",
            PrimitiveTypeCode.UInt64 => "ulong",
            PrimitiveTypeCode.Single => "float",
            PrimitiveTypeCode.Double => "double",
            PrimitiveTypeCode.String => "string",
            PrimitiveTypeCode.TypedReference => "TypedReference",
            PrimitiveTypeCode.IntPtr => "nint",
            PrimitiveTypeCode.UIntPtr => "nuint",
            PrimitiveTypeCode.Object => "object",
            _ => "?",
        };

        public string GetTypeFromDefinition(MetadataReader reader, TypeDefinitionHandle handle, byte rawTypeKind) =>
            TypeName(handle, 0);

        public string GetTypeFromReference(MetadataReader reader, TypeReferenceHandle handle, byte rawTypeKind) =>
            TypeName(handle, 0);

        public string GetTypeFromSpecification(MetadataReader reader, GenericContext context,
                                               TypeSpecificationHandle handle, byte rawTypeKind) =>
            reader.GetTypeSpecification(handle).DecodeSignature(this, context);

        public string GetSZArrayType(string elementType) => elementType + "[]";

        public string GetArrayType(string elementType, ArrayShape shape)
        {
            var dims = new string[shape.Rank];
            for (int i = 0; i < shape.Rank; i++)
            {
                bool hasLower = i < shape.LowerBounds.Length;
                long lower = hasLower ? shape.LowerBounds[i] : 0;
                if (i < shape.Sizes.Length)
                    dims[i] = lower + "..." + (lower + shape.Sizes[i] - 1);
                else if (lower != 0)
                    dims[i] = lower + "...";
                else
                    dims[i] = "";
            }
            string inner = string.Join(",", dims);
            return elementType + "[" + (shape.Rank == 1 && inner.Length == 0 ? "*" : inner) + "]";
        }

        public string GetByReferenceType(string elementType) => elementType + "&";
        public string GetPointerType(string elementType) => elementType + "*";
        public string GetPinnedType(string elementType) => elementType + " pinned";

        public string GetModifiedType(string modifier, string unmodifiedType, bool isRequired) =>
            unmodifiedType + (isRequired ? " modreq(" : " modopt(") + modifier + ")";

        public string GetGenericInstantiation(string genericType, ImmutableArray<string> typeArguments) =>
            genericType + "<" + string.Join(", ", typeArguments) + ">";

        public string GetGenericTypeParameter(GenericContext context, int index) =>
            context != null && index < context.TypeParameters.Length ? context.TypeParameters[index] : "!" + index;

        public string GetGenericMethodParameter(GenericContext context, int index) =>
            context != null && index < context.MethodParameters.Length ? context.MethodParameters[index] : "!!" + index;

        public string GetFunctionPointerType(MethodSignature<string> sig)
        {
            var text = new StringBuilder("delegate*");
            if (sig.Header.IsInstance)
                text.Append(" instance");
            text.Append(sig.Header.CallingConvention switch
            {
                SignatureCallingConvention.Default => "",
                SignatureCallingConvention.CDecl => " unmanaged[Cdecl]",
                SignatureCallingConvention.StdCall => " unmanaged[Stdcall]",
                SignatureCallingConvention.ThisCall => " unmanaged[Thiscall]",
                SignatureCallingConvention.FastCall => " unmanaged[Fastcall]",
                SignatureCallingConvention.VarArgs => " vararg",
                SignatureCallingConvention.Unmanaged => " unmanaged",
                _ => " callconv(" + (int)sig.Header.CallingConvention + ")",
            });
            var parts = new List<string>(sig.ParameterTypes);
            parts.Add(sig.ReturnType);
            return text.Append('<').Append(string.Join(", ", parts)).Append('>').ToString();
        }
    }
}
