// The message trace: CMsgSocket::AfficheMessage writes a message to the log
// field by field, and GetNomFonction names the function codes for it.
//
// The dump is for diagnosis only (log levels 6 and 7); nothing in the
// library's behaviour depends on it.
#include <korvane/CMsgSocket.h>

#include <cwchar>
#include <new>

#include "diag/Log.h"
#include "protocol/ValueText.h"
#include "protocol/ValueTypes.h"

namespace {

// Header lines and the values of the first parameters are worth seeing at
// level 6; the rest of the parameters' detail waits for level 7.
constexpr int kNiveauEntete = 6;
constexpr int kNiveauDetail = 7;
constexpr int kNbValeursNiveauEntete = 4;
constexpr int kDernierParamMontre = 30;  // at most 31 parameters are shown
constexpr int kCapaciteValeur = 32000;   // characters of a value's text

struct NomFonction {
    int code;
    const wchar_t* mot;
};

const NomFonction kNomsFonction[] = {
    {-54, L"ERROR_MAX_CLIENT_ATTEINT"},
    {0, L"INIT_OK"},
    {5, L"HEART_BEAT"},
    {6, L"GET_NB_CLIENT"},
    {7, L"GET_MAX_NB_CLIENT"},
    {8, L"DECONNEXION_WARNING"},
    {9, L"DECONNEXION"},
    {20, L"INIT_APPLICATION"},
    {21, L"INIT_CONNEXION"},
    {25, L"CLOSE_APPLICATION"},
    {26, L"CLOSE_CONNEXION"},
    {28, L"REINIT_APPLICATION"},
    {29, L"REINIT_CONNEXION"},
    {101, L"EXECUTE"},
    {102, L"EXECUTESELECT"},
    {103, L"FETCH"},
    {104, L"GETDATA"},
    {105, L"LIBERE_CNX_SELECT"},
    {106, L"GETLINE"},
    {107, L"EXISTTABLE"},
    {108, L"EXISTCOLUMN"},
    {109, L"GETCOLUMNS"},
    {110, L"EXECUTEBIND"},
    {111, L"EXECUTEPROC"},
    {112, L"NUMRESULTCOLS"},
    {113, L"PREPARE"},
    {114, L"ROWCOUNT"},
    {115, L"TRANSACT"},
    {116, L"PUTDATA"},
    {117, L"MORERESULT"},
    {118, L"BINDPARAMETER"},
    {119, L"GET_ODBC_ERROR_TEXT"},
    {120, L"REQUETE_METABASE"},
};

void Ecrit(int niveau, DStr& ligne) { WriteLog(ligne.GetString(), niveau); }

// The value line of a non-NULL parameter. A text longer than the value buffer
// shows its first 32000 characters followed by "...": only characters that
// were really produced are shown.
void LigneValeur(int i, const CParam* p, wchar_t* valeur, DStr& ligne) {
    ligne.Printf(L"      Param %d: valeur = ", i);
    int capacite = kCapaciteValeur;
    valeur[0] = L'\0';
    ParamValeurToBuffer(p, valeur, &capacite, 0);
    if (capacite <= kCapaciteValeur) {
        ligne += valeur;
        return;
    }
    DStr texte;
    ParamValeurToDStr(p, texte, 0);
    std::wmemcpy(valeur, texte.GetString(), kCapaciteValeur);
    valeur[kCapaciteValeur] = L'\0';
    ligne += valeur;
    ligne += L"...";
}

}  // namespace

wchar_t* GetNomFonction(int fonction, wchar_t* nom, int bPrefixe) {
    if (!nom) return nom;
    std::wcscpy(nom, bPrefixe ? L"KVN_" : L"");
    for (const NomFonction& n : kNomsFonction) {
        if (n.code == fonction) {
            std::wcscat(nom, n.mot);
            return nom;
        }
    }
    std::wcscpy(nom, L"INCONNUE");
    return nom;
}

void CMsgSocket::AfficheMessage(const wchar_t* titre) {
    const int niveau = GetLogLevel();
    if (niveau < kNiveauEntete) return;

    DStr ligne;
    if (titre) {
        ligne.Printf(L"---------------------------------------- %ls", titre);
        Ecrit(kNiveauEntete, ligne);
    }

    wchar_t nom[32];
    ligne.Printf(L"   Id Application = %d", static_cast<int>(m_entete.nIdApplication));
    Ecrit(kNiveauEntete, ligne);
    ligne.Printf(L"   Id Connexion = %d", static_cast<int>(m_entete.nIdConnexion));
    Ecrit(kNiveauEntete, ligne);
    ligne.Printf(L"   Fonction = %d (%ls)", static_cast<int>(m_entete.nFonction),
                 GetNomFonction(m_entete.nFonction, nom, 1));
    Ecrit(kNiveauEntete, ligne);
    ligne.Printf(L"   Nb param = %d", static_cast<int>(m_entete.nNbParam));
    Ecrit(kNiveauEntete, ligne);
    ligne.Printf(L"   Taille data = %d bytes", static_cast<int>(m_entete.nTailleData));
    Ecrit(kNiveauEntete, ligne);
    ligne.Printf(L"   unicode = %d", static_cast<int>(m_entete.bUnicode));
    Ecrit(kNiveauEntete, ligne);

    wchar_t* valeur = nullptr;
    const int n = m_listParam.GetSize();
    for (int i = 0; i < n; ++i) {
        const CParam* p = static_cast<const CParam*>(m_listParam.GetAt(i));
        if (!p) continue;
        if (i > kDernierParamMontre) {
            ligne.Printf(L"ETC...squeeze de %d param...", m_nNbParam - i);
            if (niveau >= kNiveauDetail) Ecrit(kNiveauDetail, ligne);
            break;
        }
        if (niveau >= kNiveauDetail) {
            int type = TypeByte(p->cType);
            ligne.Printf(L"      Param %d: type = %d (%ls)", i, type, GetNomType(type, nom, 1));
            Ecrit(kNiveauDetail, ligne);
            ligne.Printf(L"      Param %d: taille = %d", i, static_cast<int>(p->nTaille));
            Ecrit(kNiveauDetail, ligne);
        }
        const int niveauValeur = i < kNbValeursNiveauEntete ? kNiveauEntete : kNiveauDetail;
        if (niveau >= niveauValeur) {
            if (p->bNull) {
                ligne.Printf(L"      Param %d: valeur = NULL", i);
            } else {
                if (!valeur) valeur = new (std::nothrow) wchar_t[kCapaciteValeur + 1];
                if (valeur)
                    LigneValeur(i, p, valeur, ligne);
                else
                    ligne.Printf(L"      Param %d: valeur = ", i);
            }
            Ecrit(niveauValeur, ligne);
        }
        if (i >= m_nNbParam) break;
    }
    delete[] valeur;

    if (titre) {
        ligne = L"----------------------------------------";
        Ecrit(kNiveauEntete, ligne);
    }
}
